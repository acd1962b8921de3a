//  Sends each command to the responsible master of a Redis Cluster. The group of a name (route.h) is its slot
//  (slots.h).
//
//      ask(slot) --> master of the slot, as known, or as a node reports in CLUSTER SLOTS
//                      | MOVED HOST:PORT              --> remembers this master, asks there
//                      | ASK HOST:PORT                --> asks there once, after ASKING
//                      | TRYAGAIN, CLUSTERDOWN, ...   --> pauses, lets another node report the master, asks again for
//                      |                                  up to 2 s (redisStalls in refusal.h)
//                      | any other answer             --> is the result
//
//  A report is requested from the connected nodes, the nodes of the url and the nodes of the last report, one after the
//  other, until a node names a master that can be reached. So it is enough that one of these nodes knows the master.
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
