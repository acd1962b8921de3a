//  The parsed url of the back end dyndns2:
//
//      dyndns2+https://HOST[:PORT][/PATH][?addresses=first&parameter=myip&only=PREFIX&skip=temporary&ca=/FILE]
//
//  The default port is 443 (RFC 9110 section 4.2.2). The path "/nic/update" is used if the url has no path or only "/".
//  Options may be in any order, each at most once. request/address_filter.h describes the options `only` and `skip`.
#ifndef RDBAPI_OPEN_DYNDNS2_PROVIDER_URL_H
#define RDBAPI_OPEN_DYNDNS2_PROVIDER_URL_H

#include "net/url.h"
#include "request/address_filter.h"

namespace rdbopen {

struct Provider {
    Server server;
    std::string path = "/nic/update";
    std::string parameter = "myip";  // name of the query parameter with the addresses: letters, digits, "_"
    std::string authorities;         // path of a file with certificates; empty: those of the system
    bool allAddresses = false;       // send all addresses that pass the filter, instead of the first one
    AddressFilter filter;
};

//  Parses url. Fails with malformedUrl.
Result<Provider> parseProvider(const Url& url);

}  // namespace rdbopen

#endif
