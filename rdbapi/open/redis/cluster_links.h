//  The connections to the nodes of a Redis Cluster, one for each node that is used, each logged in.
//
//  The reason of each failure begins with host and port of the node.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_REDIS_CLUSTER_LINKS_H
#define RDBAPI_OPEN_REDIS_CLUSTER_LINKS_H

#include "redis/cluster_layout.h"
#include "redis/login.h"
#include "redis/route.h"

#include <memory>
#include <vector>

namespace rdbopen {

class ClusterLinks {
public:
    //  mayMeetTls: a node may speak TLS although the streams do not.
    ClusterLinks(MakeStream makeStream, bool mayMeetTls)
        : makeStream_(std::move(makeStream)), mayMeetTls_(mayMeetTls) {}

    //  Sets what all later connections use.
    void use(const Waiter& waiter, RedisLogin login);

    //  Connects to node and logs in, if there is no connection to it. Every failure has the code errorBackendFailed.
    Status connect(const Server& node, std::chrono::milliseconds until);

    //  Sends a command to node and returns its answer. Closes the connection after a failure.
    //  asking: sends ASKING before the command. Requires: connect has succeeded for node.
    Result<RedisReply> ask(const Server& node, const RedisCommand& command, bool asking,
                           std::chrono::milliseconds until);

    //  Returns the nodes, the one that was used last first.
    std::vector<Server> nodes() const;

    //  Closes each connection for which isUsed(node) is false.
    void keepOnly(const std::function<bool(const Server&)>& isUsed);

    void close() noexcept { links_.clear(); }

    //  Returns the descriptor of the connection that was used last, or -1.
    int descriptor() const noexcept;

private:
    struct Link {
        Server node;
        std::unique_ptr<RedisConnection> connection;
    };

    Status logIn(RedisConnection& connection, const Server& node, std::chrono::milliseconds until) const;
    bool moveToFront(const Server& node);

    const MakeStream makeStream_;
    const bool mayMeetTls_;
    const Waiter* waiter_ = nullptr;
    RedisLogin login_;
    std::vector<Link> links_;  // the one that was used last is the first
};

}  // namespace rdbopen

#endif
