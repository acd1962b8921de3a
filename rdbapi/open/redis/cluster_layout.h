//  What the nodes of a Redis Cluster report about each other: which master has which slots, and where a command should
//  go instead (https://redis.io/docs/reference/cluster-spec).
//
//      CLUSTER SLOTS         ranges: first slot, last slot, master, replicas...; each node is host, port, ...
//      -MOVED SLOT HOST:PORT   the slot belongs to this master
//      -ASK SLOT HOST:PORT     the slot is being moved there; only this command should go there, after ASKING
//
//  An empty host stands for the host that was asked. Hosts and ports come from a server, which may send anything: only
//  those that a url could contain are used.
//
//  Threads: any thread may call these functions.
#ifndef RDBAPI_OPEN_REDIS_CLUSTER_LAYOUT_H
#define RDBAPI_OPEN_REDIS_CLUSTER_LAYOUT_H

#include "net/url.h"
#include "redis/reply.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace rdbopen {

struct ClusterLayout {
    struct Range {
        std::uint16_t first;  // slots, both included
        std::uint16_t last;
        Server master;
    };
    std::vector<Range> ranges;  // without those whose master has no usable host and port
    std::vector<Server> nodes;  // masters and replicas, each once

    //  Returns the master of slot, or null without one.
    const Server* masterOf(std::uint16_t slot) const noexcept;
};

//  Returns the meaning of the answer to CLUSTER SLOTS. asked: the node that was asked. Fails with errorBackendFailed.
Result<ClusterLayout> readClusterSlots(const RedisReply& reply, const Server& asked);

struct Redirection {
    bool ask = false;  // ASK, not MOVED
    Server target;
};

//  Returns whether the answer is MOVED or ASK.
bool isRedirection(const RedisReply& reply) noexcept;

//  Returns where to send the command instead, or nothing if the answer has no usable target. Requires: isRedirection.
std::optional<Redirection> readRedirection(const RedisReply& reply, const Server& asked);

}  // namespace rdbopen

#endif
