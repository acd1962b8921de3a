#include "dns/primary.h"

#include "dns/answer.h"
#include "engine/clock.h"
#include "net/host_name.h"

#include <netdb.h>
#include <resolv.h>

namespace rdbopen {

namespace {

constexpr int resolverWait = 2;  // s, for the answer of one name server
constexpr int resolverTries = 1;
constexpr std::size_t maxAnswer = 4096;

//  The state of a query to the system's resolver.
class Resolver {
public:
    Resolver() : ready_(res_ninit(&state_) == 0) {}
    Resolver(const Resolver&) = delete;
    Resolver& operator=(const Resolver&) = delete;
    ~Resolver() {
        if (ready_)
            res_nclose(&state_);
    }

    bool ready() const noexcept { return ready_; }
    int error() const noexcept { return state_.res_h_errno; }

    //  Returns the length of the answer, or -1. A truncated answer is not requested again over TCP, because that
    //  connection would have no time limit; a SOA record fits into a datagram.
    int query(const std::string& zone, std::span<std::uint8_t> answer) {
        state_.retrans = resolverWait;
        state_.retry = resolverTries;
        state_.options |= RES_IGNTC;
        return res_nquery(&state_, zone.c_str(), C_IN, T_SOA, answer.data(), static_cast<int>(answer.size()));
    }

private:
    struct __res_state state_ {};
    bool ready_;
};

std::string resolverWords(int error) {
    if (error == HOST_NOT_FOUND)
        return "the resolver does not know this name";
    if (error == NO_DATA)
        return "this name is not a zone";
    return "the resolver does not answer or has failed";
}

Status notFound(const std::string& zone, std::string reason) {
    return failedTo("the primary server of " + zone + " cannot be found", backendFailed(std::move(reason)));
}

//  Returns the name that part contains, or an empty text.
std::string nameOf(const ldns_rdf* part) {
    const std::unique_ptr<char, void (*)(void*)> text(ldns_rdf2str(part), std::free);
    std::string name = text != nullptr ? lowerCase(text.get()) : std::string();
    if (name.ends_with('.'))
        name.pop_back();
    return name;
}

}  // namespace

Result<std::string> findPrimary(const std::string& zone, std::chrono::milliseconds& until) {
    const auto before = monotonicNow();
    Resolver resolver;
    if (!resolver.ready())
        return notFound(zone, "the resolver cannot be used");
    std::uint8_t answer[maxAnswer];
    const int length = resolver.query(zone, answer);
    until += monotonicNow() - before;
    if (length < 0)
        return notFound(zone, resolverWords(resolver.error()));
    return primaryOf({answer, std::min(static_cast<std::size_t>(length), sizeof answer)}, zone);
}

Result<std::string> primaryOf(std::span<const std::uint8_t> answer, const std::string& zone) {
    const Result<Packet> packet = parseMessage(answer);
    if (!packet.ok())
        return notFound(zone, packet.status().reason);
    const ldns_rr* const record = findRecord(**packet, zone, typeSoa);
    if (record == nullptr || ldns_rr_rd_count(record) == 0)
        return notFound(zone, "this name is not a zone");
    std::string name = nameOf(ldns_rr_rdf(record, 0));
    if (!isDnsName(name))
        return notFound(zone, "the SOA record of the zone names no host");
    return name;
}

}  // namespace rdbopen
