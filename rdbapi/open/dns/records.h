//  The record sets that a request stands for. An update makes the zone hold exactly these, a check compares them:
//
//      NAME              AAAA   one for each address
//      NAME              HTTPS  port 443 listed:   1 .  ipv6hint=...
//                               others only:       1 .  port=P1 ipv6hint=...
//                                                  2 .  port=P2 ipv6hint=...
//      _P._https.NAME    HTTPS  for each port P but 443:  1 NAME ipv6hint=...
//
//  A set without records is one that the zone must not hold. Without an address all sets are of this kind. Under a port's
//  name the target is NAME itself: "." would stand for the port's name, which has no address (RFC 9460 sections 2.3, 2.5).
#ifndef RDBAPI_OPEN_DNS_RECORDS_H
#define RDBAPI_OPEN_DNS_RECORDS_H

#include "dns/message.h"
#include "dns/zone_url.h"
#include "net/local_flags.h"
#include "request/dns_request.h"

namespace rdbopen {

//  Addresses in a record's ipv6hint at most: the first ones of the request. A hint is a hint; the AAAA records have all.
inline constexpr std::size_t maxHints = 16;

//  Stores the name in zone for which name stands: itself when it is the zone's or below it, NAME.ZONE when it has no dot.
//  Returns false when the zone does not hold it.
bool nameInZone(std::string_view name, const std::string& zone, std::string& full);

//  Returns the addresses of texts that are published: the IPv6 addresses, each once, without those that zone skips.
//  flags: of this host's addresses; an address that is not among them has none.
std::vector<Ipv6Address> publishedAddresses(const std::vector<std::string>& texts, const DnsZone& zone,
                                            const LocalFlags& flags);

//  Returns the sets for the name full, which is in zone's form. Those of one owner stand together.
std::vector<RecordSet> recordSets(const std::string& full, const std::vector<Ipv6Address>& addresses,
                                  const std::vector<std::uint16_t>& ports);

}  // namespace rdbopen

#endif
