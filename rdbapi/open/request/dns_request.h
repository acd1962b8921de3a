//  The ws_dnsupdate request and its reply, both one line of JSON:
//
//      {"request":"ws_dnsupdate","seqno":5,"item":{"name":"host1","ipv6s":["2001:db8::1","2001:db8::2"],...}}
//      {"seqno":5,"code":0,"message":"ok"}
//
//  The item's members "name", "ipv4s", "ipv6s" and "httpsports" are used; the lists may be missing. Others are ignored.
//  DnsUpdateBackend serves such requests for a back end that can put the addresses of a name somewhere.
#ifndef RDBAPI_OPEN_REQUEST_DNS_REQUEST_H
#define RDBAPI_OPEN_REQUEST_DNS_REQUEST_H

#include "engine/backend.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rdbopen {

struct DnsRequest {
    std::optional<std::int64_t> seqno;      // empty if the request has no valid one; also set if the request is refused
    std::string name;                       // isDnsName (net/host_name.h)
    std::vector<std::string> addresses;     // IPv4 before IPv6, in order, each once
    std::vector<std::uint16_t> httpsPorts;  // in order, each once; never 0
};

//  Parses text. Fails with errorBadRequest; then, too, request has the seqno if there is a valid one.
Status parseDnsRequest(std::string_view text, DnsRequest& request);

//  Returns the text of a reply. An empty seqno is written as null.
std::string dnsReply(const std::optional<std::int64_t>& seqno, int code, std::string_view message);

//  Parses each request and writes its reply.
class DnsUpdateBackend : public UpdateBackend {
public:
    Status apply(std::string_view text, std::string& reply) final;
    std::string refusal(std::string_view text, int code) final;

protected:
    ~DnsUpdateBackend() = default;

private:
    //  Carries out a request that is valid.
    virtual Status update(const DnsRequest& request) = 0;
};

}  // namespace rdbopen

#endif
