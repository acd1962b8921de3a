//  The ws_dnsupdate request and its reply, both one line of JSON:
//
//      {"request":"ws_dnsupdate","seqno":5,"item":{"name":"host1","ipv6s":["2001:db8::1","2001:db8::2"],...}}
//      {"seqno":5,"code":0,"message":"ok"}
//
//  Of the item, "name", "ipv4s", "ipv6s" and "httpsports" count; the lists may be left out. Other members are passed over.
#ifndef RDBAPI_OPEN_REQUEST_DNS_REQUEST_H
#define RDBAPI_OPEN_REQUEST_DNS_REQUEST_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rdbopen {

struct DnsRequest {
    std::optional<std::int64_t> seqno;   // none when the request had no usable one; also set when the rest is refused
    std::string name;                    // isDnsName (net/host_name.h)
    std::vector<std::string> addresses;  // IPv4 before IPv6, as given, each once
    std::vector<std::uint16_t> httpsPorts;  // as given, each once; never 0
};

//  Takes text apart. Returns an empty text, or the reason why it is refused.
std::string parseDnsRequest(std::string_view text, DnsRequest& request);

//  Returns a reply text. seqno none is written as null.
std::string dnsReply(const std::optional<std::int64_t>& seqno, int code, std::string_view message);

}  // namespace rdbopen

#endif
