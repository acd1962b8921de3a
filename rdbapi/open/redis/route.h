//  Sends a command to the server that is responsible for it. The back end (backend.h) and its inspector send every
//  command through this interface.
//
//      ServerRoute     one server, or several of which one is the primary (server_route.h)
//      SentinelRoute   the master that Sentinels name (sentinel_route.h)
//      ClusterRoute    the masters of a cluster (cluster_route.h)
//
//  Every failure has the code errorBackendFailed; open must then be called again. An error answer to the command of ask
//  or askCurrent is a result, not a failure. There is one exception: the answer means that the server does not serve
//  the command at present, and a ServerRoute or ClusterRoute has tried to repeat the command in vain.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_REDIS_ROUTE_H
#define RDBAPI_OPEN_REDIS_ROUTE_H

#include "redis/connection.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace rdbopen {

//  Makes a stream that is not connected.
using MakeStream = std::function<std::unique_ptr<Stream>()>;

class RedisRoute {
public:
    RedisRoute() = default;
    RedisRoute(const RedisRoute&) = delete;
    RedisRoute& operator=(const RedisRoute&) = delete;
    virtual ~RedisRoute() = default;

    //  Returns the servers and the database for syslog: redisPlaceText (place.h).
    virtual std::string label() const = 0;

    //  Connects and logs in. waiter: is used for all waits from this call until close.
    virtual Status open(const Waiter& waiter, std::chrono::milliseconds until) = 0;

    //  Returns the group of the keys of name: their slot in a cluster, otherwise 0. All keys of one command must be in
    //  the same group.
    virtual std::uint16_t groupOf(std::string_view) const noexcept { return 0; }

    //  Sends a command with keys of one group, and returns the answer. Requires: open has succeeded.
    virtual Result<RedisReply> ask(std::uint16_t group, const RedisCommand& command,
                                   std::chrono::milliseconds until) = 0;

    //  Sends a command without keys on the connection that was used last. Requires: open has succeeded.
    virtual Result<RedisReply> askCurrent(const RedisCommand& command, std::chrono::milliseconds until) = 0;

    //  Returns the descriptor of the connection that was used last, or -1.
    virtual int descriptor() const noexcept = 0;

    virtual void close() noexcept = 0;
};

}  // namespace rdbopen

#endif
