//  The DNS update request: what is told to the DNS server, and its JSON text.
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

//  One DNS update. Members whose field is empty (timestamp: not above 0) are left out of the text, but for the ports. A
//  list of addresses gives two members: "ipv6s" with all of them and "ipv6" with the first.
struct DnsUpdateItem {
    std::int64_t timestamp = 0;              // milliseconds since the epoch
    olk::string name;                        // host name
    olk::vector_<std::uint32_t> httpsports;  // HTTPS ports of the host
    olk::vector_<olk::string> ipv4s;         // IPv4 addresses
    olk::vector_<olk::string> ipv6s;         // IPv6 addresses; their order is kept
};

//  Bytes reserved for a request: one for a few addresses is built without growing.
constexpr std::size_t dns_request_reserve = 400;

//  Splits an address list at every "," and appends the pieces to addresses in order. Empty pieces are left out.
void splitAddressList(const std::string& list, olk::vector_<olk::string>& addresses);

//  Appends the request text to out. What finds no memory is left out: a caller that must know checks the text's end.
void writeDnsUpdateRequest(std::int32_t seqno, const DnsUpdateItem& item, olk::string& out);

#endif
