//  The parsed url of the back end dns:
//
//      dns://SERVER[:PORT]/ZONE[?ttl=60&algorithm=hmac-sha256&only=2001:db8:1::/48&skip=ula,if:wg*&check=60&ptr=ZONE]
//      dns://A,B:5353,[::1]/ZONE                       several servers
//      dns:///ZONE                                     the primary server of the zone (primary.h)
//      dns+tls://...                                   the same over TLS, with the options of net/tls_settings.h
//
//  The default PORT is 53, or 853 with TLS (RFC 7858 section 3.1). Options may be in any order, each at most once. The
//  value of "algorithm" and the words of "skip" must be in lower case. request/address_filter.h describes "only" and
//  "skip". The value of "ptr" is a list of reverse zones, separated by commas (pointers.h).
#ifndef RDBAPI_OPEN_DNS_ZONE_URL_H
#define RDBAPI_OPEN_DNS_ZONE_URL_H

#include "net/host_name.h"
#include "net/url.h"
#include "request/address_filter.h"

#include <chrono>

namespace rdbopen {

struct DnsZone {
    std::string scheme;
    std::vector<Server> servers;            // empty: use the primary server of the zone
    std::uint16_t port = 0;                 // of the primary server
    std::string zone;                       // satisfies isDnsName; in lower case, without the final dot
    std::uint32_t ttl = 60;                 // s, at most 2^31 - 1 (RFC 2181 section 8)
    std::string algorithm = "hmac-sha256";  // satisfies isTsigAlgorithm
    AddressFilter filter;
    std::vector<std::string> reverseZones;   // each satisfies isReverseZone
    std::chrono::milliseconds check{60000};  // interval between checks of the server; 0 for never, at most one day

    //  Returns whether all requests are sent over TLS and none over UDP.
    bool encrypted() const;
};

//  Parses a url of this back end, without the options of TLS. Fails with malformedUrl.
Result<DnsZone> parseDnsZone(const Url& url);

}  // namespace rdbopen

#endif
