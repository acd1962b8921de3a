#include "redis/cluster_route.h"

#include "engine/clock.h"
#include "net/secret.h"
#include "redis/objects.h"
#include "redis/refusal.h"
#include "redis/slots.h"
#include "redis/turns.h"

#include <algorithm>

namespace rdbopen {

namespace {

using Kind = RedisReply::Kind;
using Time = std::chrono::milliseconds;

//  While the slot of a command is being moved or has no master, the command is repeated after pauses, up to stallLimit.
//  This limit is shorter than the time for which a caller waits, so that the caller gets the reason and not a time-out.
constexpr Time stallLimit{2000};
constexpr Time firstPause{50};
constexpr Time maxPause{400};

Status refused(const RedisCommand& command, const RedisReply& reply) {
    return backendFailed(redisRefusal(command.front(), reply.text, reply.quotable));
}

}  // namespace

Status ClusterRoute::open(const Waiter& waiter, Time until) {
    waiter_ = &waiter;
    links_.close();
    slots_.clear();
    down_.reset();
    Result<std::string> password = readSecret(credentials_.password);
    if (!password.ok())
        return password.status();
    links_.use(waiter, {credentials_.user, std::move(*password), 0, false});
    return tryInTurn(candidates(), waiter, until,
                     [this](const Server& node, Time share) { return report(node, share).status(); });
}

//  All keys of a name are in the same slot (objects.h).
std::uint16_t ClusterRoute::groupOf(std::string_view name) const noexcept {
    return redisSlot(keyOf("tag:", name));
}

Result<RedisReply> ClusterRoute::ask(std::uint16_t slot, const RedisCommand& command, Time until) {
    const Time patience = std::min(until, monotonicNow() + stallLimit);
    for (Time time = firstPause;; time = std::min(2 * time, maxPause)) {
        Result<RedisReply> reply = follow(slot, command, until);
        if (!reply.ok())
            return reply;
        if (!reply->is(Kind::error) || !redisStalls(reply->text)) {
            down_.reset();
            closeUnused();
            return reply;
        }
        down_ = links_.servers().front();
        slots_.erase(slot);
        if (!pause(time, patience))
            return refused(command, *reply);
    }
}

Result<RedisReply> ClusterRoute::askCurrent(const RedisCommand& command, Time until) {
    const std::vector<Server> nodes = links_.servers();
    if (nodes.empty())
        return backendFailed("there is no connection to the cluster");
    return links_.ask(nodes.front(), command, false, until);
}

Result<RedisReply> ClusterRoute::follow(std::uint16_t slot, const RedisCommand& command, Time until) {
    if (Status failed = connectMaster(slot, until); !failed.ok())
        return failed;
    Redirection next{false, slots_.at(slot)};
    for (int redirections = 0;; ++redirections) {
        const Server node = next.target;
        Result<RedisReply> reply = links_.ask(node, command, next.ask, until);
        if (!reply.ok() || !isRedirection(*reply))
            return reply;
        if (redirections == maxRedirections)
            return backendFailed("the nodes of the cluster redirect a request more than " +
                                 std::to_string(maxRedirections) + " times");
        std::optional<Redirection> target = readRedirection(*reply, node);
        if (!target)
            return failedTo(serverText(node), backendFailed("its redirection names no usable address"));
        next = std::move(*target);
        if (!next.ask)
            slots_[slot] = next.target;
        if (Status failed = links_.connect(next.target, until); !failed.ok())
            return failed;
    }
}

//  Connects to the master of slot and stores this master in slots_. The attempt to reach the known master may take half
//  of the time; the other half is left to find a newer master.
Status ClusterRoute::connectMaster(std::uint16_t slot, Time until) {
    const Time now = monotonicNow();
    if (const auto known = slots_.find(slot); known != slots_.end()) {
        if (links_.connect(known->second, now + (until - now) / 2).ok())
            return {};
        slots_.erase(known);
    }
    return tryInTurn(candidates(), *waiter_, until,
                     [&](const Server& node, Time share) { return connectMasterKnownTo(node, slot, share); });
}

Status ClusterRoute::connectMasterKnownTo(const Server& node, std::uint16_t slot, Time until) {
    const Result<ClusterLayout> layout = report(node, until);
    if (!layout.ok())
        return layout.status();
    const Server* master = layout->masterOf(slot);
    if (master == nullptr)
        return failedTo(serverText(node),
                        backendFailed("the cluster has no master with a usable address for the slot " +
                                      std::to_string(slot) + " of the name"));
    Status status = links_.connect(*master, until);
    if (status.ok())
        slots_[slot] = *master;
    return status;
}

//  Queries node for the layout of the cluster.
Result<ClusterLayout> ClusterRoute::report(const Server& node, Time until) {
    if (Status failed = links_.connect(node, until); !failed.ok())
        return failed;
    const Result<RedisReply> reply = links_.ask(node, {"CLUSTER", "SLOTS"}, false, until);
    if (!reply.ok())
        return reply.status();
    if (reply->is(Kind::error))
        return failedTo(serverText(node), refused({"CLUSTER SLOTS"}, *reply));
    Result<ClusterLayout> layout = readClusterSlots(*reply, node);
    if (!layout.ok())
        return failedTo(serverText(node), layout.status());
    nodes_ = layout->nodes;
    return layout;
}

//  Returns the nodes in the order in which they are asked for a report: the connected nodes, the nodes of the url and
//  the nodes of the last report; down_ is the last. If the whole cluster has been replaced, the nodes of the last
//  report no longer exist, so they come after those of the url.
std::vector<Server> ClusterRoute::candidates() const {
    std::vector<Server> all;
    const auto append = [&all](const std::vector<Server>& nodes) {
        for (const Server& node : nodes)
            if (std::find(all.begin(), all.end(), node) == all.end())
                all.push_back(node);
    };
    append(links_.servers());
    append(place_.servers);
    append(nodes_);
    std::stable_partition(all.begin(), all.end(), [this](const Server& node) { return !down_ || !(node == *down_); });
    return all;
}

//  Waits for the duration `time` and returns true. If this wait would not end before the moment `until`, returns false
//  without waiting. If the wait is interrupted, for example because the handle is closed, returns false early.
bool ClusterRoute::pause(Time time, Time until) const {
    const Time end = monotonicNow() + time;
    if (end >= until)
        return false;
    constexpr int noDescriptor = -1;  // poll(2) ignores it
    return waiter_->wait(noDescriptor, 0, end) == Waiter::Result::timedOut && monotonicNow() >= end &&
           !waiter_->cancelled();
}

//  Closes the connections to nodes that are not in slots_: nodes that have only reported, targets of ASK, and former
//  masters.
void ClusterRoute::closeUnused() {
    links_.keepOnly([this](const Server& node) {
        return std::any_of(slots_.begin(), slots_.end(), [&](const auto& known) { return known.second == node; });
    });
}

}  // namespace rdbopen
