#include "redis/links.h"

#include <algorithm>

namespace rdbopen {

//  The addresses of a name may belong to one server or to several servers. So the next address is tried after any
//  failure of attempt.
Status connectTo(RedisConnection& connection, const Server& server, const Waiter& waiter,
                 std::chrono::milliseconds until, const ServerAddresses::Attempt& attempt) {
    ServerAddresses addresses;
    if (Status failed = addresses.lookUp({server}, until); !failed.ok())
        return failed;
    const auto connect = [&](const ServerAddress& address, std::chrono::milliseconds share) {
        return connection.connect(address, waiter, share);
    };
    Status status = addresses.tryEach(waiter, until, connect, [&](auto share) {
        Status tried = attempt(share);
        tried.failover = !tried.ok();
        return tried;
    });
    status.failover = false;
    return status;
}

void RedisLinks::use(const Waiter& waiter, RedisLogin login) {
    waiter_ = &waiter;
    login_ = std::move(login);
}

Status RedisLinks::connect(const Server& server, std::chrono::milliseconds until) {
    if (moveToFront(server))
        return {};
    auto connection = std::make_unique<RedisConnection>(makeStream_(), mayMeetTls_);
    Status failed = connectTo(*connection, server, *waiter_, until,
                              [&](auto share) { return logInToRedis(*connection, login_, *waiter_, share); });
    if (!failed.ok())
        return failedTo(serverText(server), std::move(failed));
    links_.insert(links_.begin(), {server, std::move(connection)});
    return {};
}

Result<RedisReply> RedisLinks::ask(const Server& server, const RedisCommand& command, bool asking,
                                   std::chrono::milliseconds until) {
    if (!moveToFront(server))
        return failedTo(serverText(server), backendFailed("there is no connection"));
    std::vector<RedisCommand> commands;
    if (asking)
        commands.push_back({"ASKING"});
    commands.push_back(command);
    std::vector<RedisReply> replies;
    if (Status failed = links_.front().connection->exchange(commands, replies, *waiter_, until); !failed.ok()) {
        links_.erase(links_.begin());
        return failedTo(serverText(server), std::move(failed));
    }
    return std::move(replies.back());
}

std::vector<Server> RedisLinks::servers() const {
    std::vector<Server> servers;
    for (const Link& link : links_)
        servers.push_back(link.server);
    return servers;
}

void RedisLinks::keepOnly(const std::function<bool(const Server&)>& isUsed) {
    std::erase_if(links_, [&](const Link& link) { return !isUsed(link.server); });
}

int RedisLinks::descriptor() const noexcept {
    return links_.empty() ? -1 : links_.front().connection->descriptor();
}

//  If there is a connection to server, moves it to the front of links_ and returns true.
bool RedisLinks::moveToFront(const Server& server) {
    const auto found =
        std::find_if(links_.begin(), links_.end(), [&](const Link& link) { return link.server == server; });
    if (found == links_.end())
        return false;
    std::rotate(links_.begin(), found, found + 1);
    return true;
}

}  // namespace rdbopen
