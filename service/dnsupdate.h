//  The DNS update request: its contents and its JSON text.
//
//      {"request":"ws_dnsupdate","seqno":5,"item":{"name":"host1","ipv6s":["2001:db8::1","2001:db8::2"],
//      "ipv6":"2001:db8::1","httpsports":[443,8443]}}                                              (one line)
#ifndef SERVICE_DNSUPDATE_H
#define SERVICE_DNSUPDATE_H

#include "olk_string.h"
#include "olk_vector.h"

#include <cstddef>
#include <cstdint>
#include <string>

//  One DNS update. An empty name or address list is not written, and neither is a timestamp of 0 or less. The ports are
//  always written. A list of addresses yields two members, such as "ipv6s" with all addresses and "ipv6" with the first
//  address.
struct DnsUpdateItem {
    std::int64_t timestamp = 0;              // milliseconds since the epoch
    olk::string name;                        // host name
    olk::vector_<std::uint32_t> httpsports;  // HTTPS ports of the host
    olk::vector_<olk::string> ipv4s;         // IPv4 addresses
    olk::vector_<olk::string> ipv6s;         // IPv6 addresses, written in this order
};

//  Bytes reserved for a request. They are enough for a few addresses, so that the text usually need not grow.
constexpr std::size_t dns_request_reserve = 400;

//  Splits list at each "," and appends the pieces in order to the vector addresses. Skips empty pieces.
void splitAddressList(const std::string& list, olk::vector_<olk::string>& addresses);

//  Appends the request text to out. If memory is exhausted, parts of the text are missing, and this is not reported.
void writeDnsUpdateRequest(std::int32_t seqno, const DnsUpdateItem& item, olk::string& out);

#endif
