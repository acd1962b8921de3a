#include "net/server_addresses.h"

#include "engine/clock.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <netdb.h>

namespace rdbopen {

namespace {

constexpr std::size_t nothing = SIZE_MAX;

struct FreeAddresses {
    void operator()(addrinfo* first) const { freeaddrinfo(first); }
};

bool same(const ServerAddress& one, const ServerAddress& other) {
    return one.length == other.length && std::memcmp(&one.bytes, &other.bytes, one.length) == 0 &&
           one.server == other.server;
}

ServerAddress addressOf(const addrinfo& found, const Server& server) {
    ServerAddress address{{}, 0, server};
    address.length = std::min(found.ai_addrlen, static_cast<socklen_t>(sizeof address.bytes));
    std::memcpy(&address.bytes, found.ai_addr, address.length);
    return address;
}

}  // namespace

Status ServerAddresses::lookUp(const std::vector<Server>& servers, std::chrono::milliseconds& until) {
    addresses_.clear();
    unknown_.clear();
    Status status;
    for (const Server& server : servers) {
        Status unknown = resolve(server, until);
        if (unknown.ok())
            continue;
        unknown_.push_back({server, unknown.reason, false});
        status = std::move(unknown);
    }
    return addresses_.empty() ? withFaults(std::move(status), unknown_) : Status{};
}

//  Appends the addresses of server.
Status ServerAddresses::resolve(const Server& server, std::chrono::milliseconds& until) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* first = nullptr;
    const auto before = monotonicNow();
    const int error = getaddrinfo(server.host.c_str(), std::to_string(server.port).c_str(), &hints, &first);
    const int system = errno;
    const std::unique_ptr<addrinfo, FreeAddresses> found(first);
    until += monotonicNow() - before;
    if (error != 0)
        return failedTo("the name of the server is not known",
                        error == EAI_SYSTEM ? systemFailure(system) : backendFailed(gai_strerror(error)));
    if (!found)
        return backendFailed("the name of the server has no address");
    for (const addrinfo* address = found.get(); address != nullptr; address = address->ai_next)
        addresses_.push_back(addressOf(*address, server));
    return {};
}

//  Stores fault in faults, which has at most one fault for each server. The answer from one address of a server has
//  priority over the failure to reach another address of the same server.
void ServerAddresses::note(std::vector<Fault>& faults, Fault fault) {
    const auto known =
        std::find_if(faults.begin(), faults.end(), [&](const Fault& other) { return other.server == fault.server; });
    if (known == faults.end())
        faults.push_back(std::move(fault));
    else if (fault.answered || !known->answered)
        *known = std::move(fault);
}

//  Returns status. If several servers have a fault, the reason is replaced by the reasons of all of them.
Status ServerAddresses::withFaults(Status status, const std::vector<Fault>& faults) {
    if (faults.size() < 2)
        return status;
    status.reason.clear();
    for (const Fault& fault : faults)
        status.reason += (status.reason.empty() ? "" : "; ") + serverText(fault.server) + ": " + fault.reason;
    return status;
}

Status ServerAddresses::tryEach(const Waiter& waiter, std::chrono::milliseconds until, const Connect& connect,
                                const Attempt& attempt) {
    std::stable_partition(addresses_.begin(), addresses_.end(),
                          [this](const ServerAddress& address) { return same(address, right_); });
    return walk({waiter, until, connect, attempt}, nothing, {});
}

Status ServerAddresses::tryOthers(Status status, const Waiter& waiter, std::chrono::milliseconds until,
                                  const Connect& connect, const Attempt& attempt) {
    return walk({waiter, until, connect, attempt}, current_, std::move(status));
}

//  Each address gets an equal share of the remaining time, so an address that drops packets does not use up the time of
//  the next one. Unused time is divided among the later addresses. An answer of a server helps the operator more than a
//  failed connection, so the answer has priority.
//  skipped: index of the address that is not tried, or `nothing`; answer: the answer of the skipped address.
Status ServerAddresses::walk(const Walk& how, std::size_t skipped, Status answer) {
    std::vector<Fault> faults = unknown_;
    bool answered = skipped != nothing;
    if (answered)
        note(faults, {addresses_[skipped].server, answer.reason, true});
    auto left = static_cast<std::int64_t>(addresses_.size()) - (answered ? 1 : 0);
    for (std::size_t i = 0; i < addresses_.size(); ++i) {
        if (i == skipped)
            continue;
        if (how.waiter.cancelled())
            return answered ? answer : cancelledFailure();
        const auto now = monotonicNow();
        const std::chrono::milliseconds share = now + (how.until - now) / left--;
        current_ = i;
        Status status = how.connect(addresses_[i], share);
        const bool reached = status.ok();
        if (reached)
            status = how.attempt(share);
        if (reached && !status.failover) {
            if (status.code != errorBackendFailed)
                right_ = addresses_[i];
            return status;
        }
        note(faults, {addresses_[i].server, status.reason, reached});
        if (reached || !answered)
            answer = std::move(status);
        answered = answered || reached;
    }
    return withFaults(std::move(answer), faults);
}

}  // namespace rdbopen
