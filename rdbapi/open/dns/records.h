//  The record sets of a request. An update makes the zone have exactly these; a check compares them with the zone's:
//
//      NAME              AAAA   one for each address
//      NAME              HTTPS  port 443 listed:   1 .  ipv6hint=...
//                               others only:       1 .  port=P1 ipv6hint=...
//                                                  2 .  port=P2 ipv6hint=...
//      _P._https.NAME    HTTPS  for each port P but 443:  1 NAME ipv6hint=...
//
//  A set without records must not exist in the zone. Without an address, all sets are of this kind. At a port's name
//  the target is NAME itself: "." would mean the port's name, which has no address (RFC 9460 sections 2.3, 2.5).
#ifndef RDBAPI_OPEN_DNS_RECORDS_H
#define RDBAPI_OPEN_DNS_RECORDS_H

#include "dns/message.h"
#include "dns/zone_url.h"
#include "net/local_flags.h"
#include "request/dns_request.h"

namespace rdbopen {

//  Maximum number of addresses in a record's ipv6hint: the first ones of the request. The AAAA records have all
//  addresses.
inline constexpr std::size_t maxHints = 16;

//  Returns the name in zone that name denotes: name itself if it is the zone's name or below it, NAME.ZONE if it has no
//  dot. Fails with errorBadRequest if name is not in the zone.
Result<std::string> nameInZone(const std::string& name, const std::string& zone);

//  Returns the addresses of texts to publish: the IPv6 addresses, each once, without those that zone skips. flags:
//  flags of this host's addresses; an address that is not in flags has none.
std::vector<Ipv6Address> publishedAddresses(const std::vector<std::string>& texts, const DnsZone& zone,
                                            const LocalFlags& flags);

//  Returns the sets for the name full, which has the zone's form. Sets of one owner are adjacent.
std::vector<RecordSet> recordSets(const std::string& full, const std::vector<Ipv6Address>& addresses,
                                  const std::vector<std::uint16_t>& ports);

}  // namespace rdbopen

#endif
