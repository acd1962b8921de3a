//  The urls of rdb_connectex, in the generic form of RFC 3986:
//
//      sqlite:///var/lib/addrpubd/rdb.db
//      |         |
//      scheme    path, absolute; between "//" and it the authority, here empty
//
//  Percent-encoded bytes of the path are decoded. A query or a fragment makes a url malformed.
#ifndef RDBAPI_OPEN_URL_H
#define RDBAPI_OPEN_URL_H

#include <string>
#include <string_view>

namespace rdbopen {

struct Url {
    std::string scheme;     // lower case
    std::string authority;  // as written; may hold a password, so never reported
    std::string path;       // decoded, begins with "/" unless empty; no zero byte
};

//  Takes text apart. Returns false for a malformed one, with the reason, which quotes nothing of text.
bool parseUrl(std::string_view text, Url& url, std::string& reason);

}  // namespace rdbopen

#endif
