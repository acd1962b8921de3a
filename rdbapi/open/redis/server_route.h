//  Sends each command to one server: the only server of the url, whose name may have several addresses; the first
//  usable one of several servers; or the server of a Unix socket.
//
//      open:  Resolves the names, and logs in at the first address that allows it. If the url has several servers, the
//             server must also be a primary.
//      ask:   If the answer is that the server is a replica or still loads its data, tries the other addresses in turn:
//             logs in and repeats the command. If the url has several servers, does the same if the answer is that the
//             server takes no writes.
//
//  ServerAddresses determines the order of the addresses (net/server_addresses.h).
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_REDIS_SERVER_ROUTE_H
#define RDBAPI_OPEN_REDIS_SERVER_ROUTE_H

#include "engine/backend.h"
#include "net/server_addresses.h"
#include "redis/login.h"
#include "redis/place.h"
#include "redis/route.h"

#include <memory>

namespace rdbopen {

class ServerRoute final : public RedisRoute {
public:
    ServerRoute(RedisPlace place, Credentials credentials, std::unique_ptr<Stream> stream)
        : place_(std::move(place)), credentials_(std::move(credentials)),
          connection_(std::move(stream), !place_.usesTls() && place_.socket.empty()) {}

    std::string label() const override { return redisPlaceText(place_); }
    Status open(const Waiter& waiter, std::chrono::milliseconds until) override;
    Result<RedisReply> ask(std::uint16_t group, const RedisCommand& command, std::chrono::milliseconds until) override;
    Result<RedisReply> askCurrent(const RedisCommand& command, std::chrono::milliseconds until) override;
    int descriptor() const noexcept override { return connection_.descriptor(); }
    void close() noexcept override { connection_.close(); }

private:
    Status lookUp(std::chrono::milliseconds& until);
    Status logIn(const RedisLogin& login, std::chrono::milliseconds until);
    Result<RedisLogin> login() const;
    Status wrongServer(const RedisCommand& command, const RedisReply& reply) const;
    Result<RedisReply> askOthers(Status status, const RedisCommand& command, std::chrono::milliseconds until);

    const RedisPlace place_;
    const Credentials credentials_;
    RedisConnection connection_;
    ServerAddresses addresses_;
    const ServerAddresses::Connect connect_ = [this](const ServerAddress& address, std::chrono::milliseconds until) {
        return connection_.connect(address, *waiter_, until);
    };
    const Waiter* waiter_ = nullptr;  // set by open
};

}  // namespace rdbopen

#endif
