#include "dyndns2/answer.h"

#include <algorithm>
#include <iterator>

namespace rdbopen {

namespace {

using Kind = ProviderAnswer::Kind;

constexpr struct {
    std::string_view word;
    Kind kind;
    std::string_view reason;
} words[] = {
    {"good", Kind::accepted, ""},
    {"nochg", Kind::accepted, ""},
    {"badauth", Kind::forbidden, "the provider rejects user or password (badauth)"},
    {"nohost", Kind::forbidden, "the account at the provider has no such host name (nohost)"},
    {"notfqdn", Kind::forbidden, "the provider requires a full domain name as host name (notfqdn)"},
    {"numhost", Kind::forbidden, "the provider finds too many or too few host names (numhost)"},
    {"abuse", Kind::forbidden, "the provider has blocked the host name because of too many updates (abuse)"},
    {"badagent", Kind::forbidden, "the provider rejects this program (badagent)"},
    {"!donator", Kind::forbidden, "the account at the provider does not include this service (!donator)"},
    {"dnserr", Kind::postponed, "the provider cannot change its DNS servers (dnserr)"},
    {"911", Kind::postponed, "the provider has a fault (911)"},
};

constexpr long httpOk = 200;
constexpr long httpUnauthorized = 401;
constexpr long httpForbidden = 403;

}  // namespace

ProviderAnswer readProviderAnswer(long status, std::string_view body) {
    const std::string_view first = body.substr(0, std::min(body.find_first_of(" \t\r\n"), body.size()));
    const auto* known = std::find_if(std::begin(words), std::end(words),
                                     [first](const auto& candidate) { return candidate.word == first; });
    if (known != std::end(words) && (status == httpOk || known->kind != Kind::accepted))
        return {known->kind, std::string(known->reason)};
    if (status == httpUnauthorized || status == httpForbidden)
        return {Kind::forbidden, "the provider rejects user or password (HTTP status " + std::to_string(status) + ")"};
    if (status != httpOk)
        return {Kind::postponed, "the provider answers with HTTP status " + std::to_string(status)};
    return {Kind::postponed, "the answer is not one of the protocol dyndns2; is the path of the url right?"};
}

}  // namespace rdbopen
