//  The ws_dnsupdate request and its reply. Each is one line of JSON:
//
//      {"request":"ws_dnsupdate","seqno":5,"item":{"name":"host1","ipv6s":["2001:db8::1","2001:db8::2"],...}}
//      {"seqno":5,"code":0,"message":"ok"}
//
//  Of "item", the members "name", "ipv4s", "ipv6s" and "httpsports" are used. Its other members are ignored. The
//  lists "ipv4s", "ipv6s" and "httpsports" are optional.
//
//  DnsUpdateBackend is the base class of the back ends that parse these requests.
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
    std::optional<std::int64_t> seqno;      // empty if missing or invalid; set even if another member is invalid
    std::string name;                       // satisfies isDnsName (net/host_name.h)
    std::vector<std::string> addresses;     // IPv4 before IPv6, in the request's order, without equal texts
    std::vector<std::uint16_t> httpsPorts;  // in the request's order, without duplicates; never 0
};

//  Parses text. Fails with errorBadRequest; even then request.seqno is set if the text is a JSON object with a valid
//  seqno.
Status parseDnsRequest(std::string_view text, DnsRequest& request);

//  Returns the text of a reply. An empty seqno is written as null.
std::string dnsReply(const std::optional<std::int64_t>& seqno, int code, std::string_view message);

//  Parses each request, calls update for a valid one, and writes the reply.
class DnsUpdateBackend : public UpdateBackend {
public:
    Status apply(std::string_view text, std::string& reply) final;
    std::string refusal(std::string_view text, int code) final;
    std::optional<std::string> repetition(std::string_view text, std::string_view done) final;

protected:
    ~DnsUpdateBackend() = default;

private:
    //  Carries out a valid request.
    virtual Status update(const DnsRequest& request) = 0;
};

}  // namespace rdbopen

#endif
