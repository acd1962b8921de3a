//  The urls of rdb_connectex, with the parts that RFC 3986 section 3 names:
//
//      dns://[2001:db8::53]:5353/example.org?ttl=60&skip=ula,temporary
//      |     |                  |            |
//      |     |                  |            query: options NAME=VALUE, separated by "&"
//      |     |                  path
//      |     authority: HOST[:PORT][,HOST[:PORT]...], an IPv6 address in brackets; empty in sqlite:///var/lib/rdb.db
//      scheme
//
//  Percent-encoded bytes of path and query are decoded. A url with a fragment is malformed. A scheme and a colon
//  without any other text, such as "log:", are a url without authority, path and options.
#ifndef RDBAPI_OPEN_NET_URL_H
#define RDBAPI_OPEN_NET_URL_H

#include "engine/status.h"

#include <cstdint>
#include <optional>
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
    std::string authority;           // as written; never reported, because it may contain a password
    std::string path;                // decoded; empty or begins with "/"; has no zero byte
    std::vector<UrlOption> options;  // in order; names and values are decoded and have no zero byte
};

//  Returns the failure for a malformed url: errorBadUrl. Requires: fault contains no part of the url except its scheme
//  and known words.
inline Status malformedUrl(std::string fault) {
    return failedTo("malformed url", {errorBadUrl, std::move(fault)});
}

//  Parses text. Fails with malformedUrl.
Result<Url> parseUrl(std::string_view text);

struct Server {
    std::string host;  // a name or an address, without brackets; 1 to 253 characters; empty for a Unix socket
    std::uint16_t port = 0;

    bool operator==(const Server&) const = default;
};

//  The largest number of servers in a url.
inline constexpr std::size_t maxServers = 16;

//  Parses a list of HOST[:PORT], separated by commas, each at most once. A server without a port gets defaultPort.
//  Returns at least one server. Fails with malformedUrl.
Result<std::vector<Server>> parseServers(std::string_view authority, std::uint16_t defaultPort);

//  Returns HOST:PORT, with an IPv6 address in brackets.
std::string serverText(const Server& server);

//  Returns the texts of the servers, separated by commas.
std::string serversText(const std::vector<Server>& servers);

//  Returns the path of a url of the form SCHEME:///PATH, whatever its options. PATH does not end with "/". Fails with
//  malformedUrl for any other url.
Result<std::string> filePathOf(const Url& url);

//  The option history=NUMBER of the back ends redis and sqlite: the maximum number of changes that they keep for each
//  name.
inline constexpr std::uint32_t defaultHistory = 1000;
inline constexpr std::uint32_t maxHistory = 100000;

//  Parses the value of the option history, from 0 to maxHistory. Fails with malformedUrl.
Status parseHistory(std::string_view text, std::uint32_t& history);

//  Returns the decimal number in text. Returns nothing if the number is greater than max, or if text is empty or
//  contains anything except digits.
std::optional<std::uint32_t> parseNumber(std::string_view text, std::uint32_t max);

}  // namespace rdbopen

#endif
