#include "redis/cluster_links.h"

#include "net/server_addresses.h"

#include <algorithm>

namespace rdbopen {

void ClusterLinks::use(const Waiter& waiter, RedisLogin login) {
    waiter_ = &waiter;
    login_ = std::move(login);
}

Status ClusterLinks::connect(const Server& node, std::chrono::milliseconds until) {
    if (moveToFront(node))
        return {};
    auto connection = std::make_unique<RedisConnection>(makeStream_(), mayMeetTls_);
    if (Status failed = logIn(*connection, node, until); !failed.ok())
        return failedTo(serverText(node), std::move(failed));
    links_.insert(links_.begin(), {node, std::move(connection)});
    return {};
}

//  A name with several addresses may be one node or several: the first address that allows the login is used.
Status ClusterLinks::logIn(RedisConnection& connection, const Server& node, std::chrono::milliseconds until) const {
    ServerAddresses addresses;
    if (Status failed = addresses.lookUp({node}, until); !failed.ok())
        return failed;
    const auto connect = [&](const ServerAddress& address, std::chrono::milliseconds share) {
        return connection.connect(address, *waiter_, share);
    };
    Status status = addresses.tryEach(*waiter_, until, connect, [&](auto share) {
        Status tried = logInToRedis(connection, login_, *waiter_, share);
        tried.failover = !tried.ok();
        return tried;
    });
    status.failover = false;
    return status;
}

Result<RedisReply> ClusterLinks::ask(const Server& node, const RedisCommand& command, bool asking,
                                     std::chrono::milliseconds until) {
    if (!moveToFront(node))
        return failedTo(serverText(node), backendFailed("there is no connection"));
    std::vector<RedisCommand> commands;
    if (asking)
        commands.push_back({"ASKING"});
    commands.push_back(command);
    std::vector<RedisReply> replies;
    if (Status failed = links_.front().connection->exchange(commands, replies, *waiter_, until); !failed.ok()) {
        links_.erase(links_.begin());
        return failedTo(serverText(node), std::move(failed));
    }
    return std::move(replies.back());
}

std::vector<Server> ClusterLinks::nodes() const {
    std::vector<Server> nodes;
    for (const Link& link : links_)
        nodes.push_back(link.node);
    return nodes;
}

void ClusterLinks::keepOnly(const std::function<bool(const Server&)>& isUsed) {
    std::erase_if(links_, [&](const Link& link) { return !isUsed(link.node); });
}

int ClusterLinks::descriptor() const noexcept {
    return links_.empty() ? -1 : links_.front().connection->descriptor();
}

//  Returns false if there is no connection to node.
bool ClusterLinks::moveToFront(const Server& node) {
    const auto found = std::find_if(links_.begin(), links_.end(), [&](const Link& link) { return link.node == node; });
    if (found == links_.end())
        return false;
    std::rotate(links_.begin(), found, found + 1);
    return true;
}

}  // namespace rdbopen
