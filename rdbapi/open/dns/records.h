//  The record sets of a request. An update replaces each of these sets in the zone; a check compares them with those of
//  the server:
//
//      NAME              AAAA   one for each address
//      NAME              HTTPS  with port 443:     1 .  ipv6hint=...
//                               without port 443:  1 .  port=P1 ipv6hint=...
//                                                  2 .  port=P2 ipv6hint=...
//      _P._https.NAME    HTTPS  for each port P except 443:  1 NAME ipv6hint=...
//
//  An HTTPS record consists of a priority, a target name and parameters. A set without records must not exist in the
//  zone. If no address is published, all sets are empty. Without ports, the HTTPS set of NAME is empty. At
//  _P._https.NAME the target is NAME, because "." would mean _P._https.NAME itself, which has no address (RFC 9460
//  sections 2.3, 2.5).
#ifndef RDBAPI_OPEN_DNS_RECORDS_H
#define RDBAPI_OPEN_DNS_RECORDS_H

#include "dns/message.h"
#include "net/local_addresses.h"
#include "request/dns_request.h"

namespace rdbopen {

//  Maximum number of addresses in a record's ipv6hint. If more addresses are published, ipv6hint has only the first
//  ones; the AAAA records have all.
inline constexpr std::size_t maxHints = 16;

//  SvcParamKeys, RFC 9460 section 14.3.2. They must be in ascending order in a record.
inline constexpr std::uint16_t keyPort = 3;
inline constexpr std::uint16_t keyIpv6Hint = 6;

//  Returns the full name of a host in zone, in lower case. NAME is a full name if it is ZONE or ends with ".ZONE". A
//  NAME without a dot becomes NAME.ZONE. Fails with errorBadRequest for any other name.
Result<std::string> nameInZone(const std::string& name, const std::string& zone);

//  Returns the IPv6 addresses in texts, without duplicates. Ignores all other elements of texts.
std::vector<Ipv6Address> ipv6Addresses(const std::vector<std::string>& texts);

//  Returns the record sets of a host, the AAAA records first. full: a result of nameInZone. Sets of one owner are
//  adjacent.
std::vector<RecordSet> recordSets(const std::string& full, const std::vector<Ipv6Address>& addresses,
                                  const std::vector<std::uint16_t>& ports);

}  // namespace rdbopen

#endif
