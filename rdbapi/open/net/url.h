//  The urls of rdb_connectex, in the generic form of RFC 3986:
//
//      dns://[2001:db8::53]:5353/example.org?ttl=60&skip=ula,temporary
//      |     |                  |            |
//      |     |                  |            query: options NAME=VALUE, separated by "&"
//      |     |                  path
//      |     authority: HOST[:PORT], an IPv6 address in brackets; empty in sqlite:///var/lib/addrpubd/rdb.db
//      scheme
//
//  Percent-encoded bytes of path and query are decoded. A fragment makes a url malformed. A scheme and its colon alone,
//  as in "log:", are a url without authority and path.
#ifndef RDBAPI_OPEN_NET_URL_H
#define RDBAPI_OPEN_NET_URL_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace rdbopen {

struct UrlOption {
    std::string name;
    std::string value;
};

struct Url {
    std::string scheme;              // lower case
    std::string authority;           // as written; may contain a password, so never reported
    std::string path;                // decoded, begins with "/" unless empty; no zero byte
    std::vector<UrlOption> options;  // decoded, in order; no zero byte
};

//  Parses text. Returns false for a malformed text, with a reason that contains no part of text.
bool parseUrl(std::string_view text, Url& url, std::string& reason);

struct Server {
    std::string host;  // a name or an address, without brackets; 1 to 253 characters
    std::uint16_t port = 0;
};

//  Parses HOST[:PORT]. Returns false for a malformed text, with a reason that contains no part of authority.
bool parseServer(std::string_view authority, std::uint16_t default_port, Server& server, std::string& reason);

//  Returns server in the form of a url.
std::string serverText(const Server& server);

//  Returns false, with the reason, unless url is one file with an absolute path, like SCHEME:///PATH.
bool isFileUrl(const Url& url, std::string& reason);

//  Parses a decimal number of at most max, without sign or blanks. Returns false if text is not such a number.
bool parseNumber(std::string_view text, std::uint32_t max, std::uint32_t& number);

}  // namespace rdbopen

#endif
