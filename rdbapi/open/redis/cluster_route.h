//  Sends each command for a name to the master of a Redis Cluster that has the slot of the name (slots.h). The group of
//  a name (route.h) is this slot.
//
//  The operation ask sends the command to the master of the slot. If no master is known, or the known master cannot be
//  reached, a node reports the master (see below). What follows depends on the answer:
//
//      MOVED HOST:PORT              stores HOST:PORT as the master of the slot, and sends the command there
//      ASK HOST:PORT                sends ASKING and the command there, once
//      TRYAGAIN, CLUSTERDOWN, ...   pauses, lets a node report the master again, and repeats the command, for up to 2 s
//                                   (redisStalls in refusal.h)
//      any other answer             returns the answer
//
//  A report is the answer of a node to CLUSTER SLOTS. To find a master, the connected nodes, the nodes of the url and
//  the nodes of the last report are asked, one after the other, until a node names a master that can be reached. So it
//  is enough that one of these nodes knows the master. The operation open asks the same nodes until one sends a report.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_REDIS_CLUSTER_ROUTE_H
#define RDBAPI_OPEN_REDIS_CLUSTER_ROUTE_H

#include "engine/backend.h"
#include "redis/cluster_layout.h"
#include "redis/links.h"
#include "redis/place.h"

#include <map>
#include <optional>

namespace rdbopen {

//  Maximum number of redirections that one attempt of a command follows before it fails.
inline constexpr int maxRedirections = 5;

class ClusterRoute final : public RedisRoute {
public:
    ClusterRoute(RedisPlace place, Credentials credentials, MakeStream makeStream)
        : place_(std::move(place)), credentials_(std::move(credentials)),
          links_(std::move(makeStream), !place_.usesTls()) {}

    std::string label() const override { return redisPlaceText(place_); }
    Status open(const Waiter& waiter, std::chrono::milliseconds until) override;
    std::uint16_t groupOf(std::string_view name) const noexcept override;
    Result<RedisReply> ask(std::uint16_t slot, const RedisCommand& command, std::chrono::milliseconds until) override;
    Result<RedisReply> askCurrent(const RedisCommand& command, std::chrono::milliseconds until) override;
    int descriptor() const noexcept override { return links_.descriptor(); }
    void close() noexcept override { links_.close(); }

private:
    std::vector<Server> candidates() const;
    Result<ClusterLayout> report(const Server& node, std::chrono::milliseconds until);
    Status connectMaster(std::uint16_t slot, std::chrono::milliseconds until);
    Status connectMasterKnownTo(const Server& node, std::uint16_t slot, std::chrono::milliseconds until);
    Result<RedisReply> follow(std::uint16_t slot, const RedisCommand& command, std::chrono::milliseconds until);
    bool pause(std::chrono::milliseconds time, std::chrono::milliseconds until) const;
    void closeUnused();

    const RedisPlace place_;
    const Credentials credentials_;
    const Waiter* waiter_ = nullptr;  // set by open
    RedisLinks links_;
    std::vector<Server> nodes_;              // ClusterLayout::nodes of the last report
    std::map<std::uint16_t, Server> slots_;  // the known masters, by slot
    std::optional<Server> down_;             // node whose answer was one of redisStalls; it is asked last for a report
};

}  // namespace rdbopen

#endif
