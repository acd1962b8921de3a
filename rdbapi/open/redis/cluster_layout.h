//  Parses what the nodes of a Redis Cluster report: which master has which slots, and to which node a command is
//  redirected (https://redis.io/docs/reference/cluster-spec).
//
//      CLUSTER SLOTS           ranges: first slot, last slot, master, replicas...; each node is host, port, ...
//      -MOVED SLOT HOST:PORT   the slot belongs to this master
//      -ASK SLOT HOST:PORT     the slot is being moved to this node; only this command is sent to it, after ASKING
//
//  An empty host, or nil, means the host of the node that has answered. A server may send anything as host and port:
//  only those that a url could contain are usable.
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
        std::uint16_t first;  // first slot of the range
        std::uint16_t last;   // last slot of the range
        Server master;
    };
    std::vector<Range> ranges;  // a range whose master has no usable host and port is left out
    std::vector<Server> nodes;  // masters and replicas with a usable host and port, each once

    //  Returns the master of slot, or null if no range contains slot.
    const Server* masterOf(std::uint16_t slot) const noexcept;
};

//  Parses the answer to CLUSTER SLOTS. asked: the node that has sent this answer. Fails with errorBackendFailed.
Result<ClusterLayout> readClusterSlots(const RedisReply& reply, const Server& asked);

struct Redirection {
    bool ask = false;  // true for ASK, false for MOVED
    Server target;
};

//  Returns whether the answer is MOVED or ASK.
bool isRedirection(const RedisReply& reply) noexcept;

//  Returns the node to which the answer redirects the command, or nothing if the answer names no usable host and port.
//  asked: the node that has sent the answer. Requires: isRedirection.
std::optional<Redirection> readRedirection(const RedisReply& reply, const Server& asked);

}  // namespace rdbopen

#endif
