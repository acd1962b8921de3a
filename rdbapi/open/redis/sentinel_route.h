//  Sends each command to the master of a group of Redis servers that Sentinels watch.
//
//  The operation open uses one Sentinel after the other, until both steps succeed:
//
//      1.  The Sentinel answers SENTINEL get-master-addr-by-name MASTER with the host and the port of the master.
//      2.  The login at this host and port succeeds, and the answer to ROLE is "master".
//
//  A Sentinel gets no user and no password. After a fail-over the connection is lost, or the server answers READONLY.
//  In both cases the back end is opened again, and open asks the Sentinels again.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_REDIS_SENTINEL_ROUTE_H
#define RDBAPI_OPEN_REDIS_SENTINEL_ROUTE_H

#include "engine/backend.h"
#include "redis/links.h"
#include "redis/place.h"

namespace rdbopen {

class SentinelRoute final : public RedisRoute {
public:
    SentinelRoute(RedisPlace place, Credentials credentials, MakeStream makeStream)
        : place_(std::move(place)), credentials_(std::move(credentials)), makeStream_(std::move(makeStream)),
          sentinels_(place_.servers), links_(makeStream_, !place_.usesTls()) {}

    std::string label() const override { return redisPlaceText(place_); }
    Status open(const Waiter& waiter, std::chrono::milliseconds until) override;
    Result<RedisReply> ask(std::uint16_t group, const RedisCommand& command, std::chrono::milliseconds until) override;
    Result<RedisReply> askCurrent(const RedisCommand& command, std::chrono::milliseconds until) override;
    int descriptor() const noexcept override { return links_.descriptor(); }
    void close() noexcept override { links_.close(); }

private:
    Status openThrough(const Server& sentinel, std::chrono::milliseconds until);
    Result<Server> findMaster(const Server& sentinel, std::chrono::milliseconds until) const;

    const RedisPlace place_;
    const Credentials credentials_;
    const MakeStream makeStream_;
    const Waiter* waiter_ = nullptr;  // set by open
    std::vector<Server> sentinels_;   // the first element is the Sentinel that was last used to find the master
    Server master_;
    RedisLinks links_;
};

}  // namespace rdbopen

#endif
