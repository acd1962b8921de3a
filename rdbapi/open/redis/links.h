//  The connections to the servers of a cluster or of a group with Sentinels: one connection for each server in use.
//  Every connection is logged in.
//
//  The reason of each failure of RedisLinks begins with host and port of the server.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_REDIS_LINKS_H
#define RDBAPI_OPEN_REDIS_LINKS_H

#include "net/server_addresses.h"
#include "redis/login.h"
#include "redis/route.h"

#include <memory>
#include <vector>

namespace rdbopen {

//  Connects to the first address of server at which attempt returns ok. attempt: uses the connection until the given
//  time.
Status connectTo(RedisConnection& connection, const Server& server, const Waiter& waiter,
                 std::chrono::milliseconds until, const ServerAddresses::Attempt& attempt);

class RedisLinks {
public:
    //  mayMeetTls: a server may speak TLS although the streams do not.
    RedisLinks(MakeStream makeStream, bool mayMeetTls) : makeStream_(std::move(makeStream)), mayMeetTls_(mayMeetTls) {}

    //  Sets the waiter and the login of all later connections.
    void use(const Waiter& waiter, RedisLogin login);

    //  If there is no connection to server, connects and logs in. Every failure has the code errorBackendFailed.
    Status connect(const Server& server, std::chrono::milliseconds until);

    //  Sends a command to server and returns its answer. Closes the connection after a failure.
    //  asking: sends ASKING before the command. Requires: connect has succeeded for server.
    Result<RedisReply> ask(const Server& server, const RedisCommand& command, bool asking,
                           std::chrono::milliseconds until);

    //  Returns the servers that have a connection. The server that was used last is the first element.
    std::vector<Server> servers() const;

    //  Closes each connection for which isUsed(server) is false.
    void keepOnly(const std::function<bool(const Server&)>& isUsed);

    void close() noexcept { links_.clear(); }

    //  Returns the descriptor of the connection that was used last, or -1.
    int descriptor() const noexcept;

private:
    struct Link {
        Server server;
        std::unique_ptr<RedisConnection> connection;
    };

    bool moveToFront(const Server& server);

    const MakeStream makeStream_;
    const bool mayMeetTls_;
    const Waiter* waiter_ = nullptr;
    RedisLogin login_;
    std::vector<Link> links_;  // the first element is the connection that was used last
};

}  // namespace rdbopen

#endif
