#include "redis/sentinel_route.h"

#include "engine/clock.h"
#include "net/secret.h"
#include "redis/objects.h"
#include "redis/refusal.h"
#include "redis/turns.h"

#include <algorithm>

namespace rdbopen {

namespace {

using Kind = RedisReply::Kind;

//  Returns the reason why a Sentinel has refused the query for the master.
Status sentinelRefused(const RedisReply& reply) {
    if (reply.text.starts_with("NOAUTH"))
        return backendFailed("the Sentinel requires a login, and gets none: its user default needs nopass and the "
                             "permission +sentinel|get-master-addr-by-name");
    if (reply.text.starts_with("ERR unknown command"))
        return backendFailed("the server is not a Sentinel");
    return backendFailed(redisRefusal("SENTINEL", reply.text, reply.quotable));
}

//  Returns the master in the answer to SENTINEL get-master-addr-by-name.
Result<Server> masterIn(const RedisReply& reply, const std::string& name) {
    if (reply.is(Kind::error))
        return sentinelRefused(reply);
    if (reply.is(Kind::nil))
        return backendFailed("the Sentinel does not know a master " + redisPrintable(name));
    if (!reply.is(Kind::array) || reply.elements.size() != 2 || !reply.elements[0].is(Kind::text) ||
        !reply.elements[1].is(Kind::text))
        return notUnderstood("SENTINEL");
    std::optional<Server> master = serverFrom(reply.elements[0].text, reply.elements[1].text);
    if (!master)
        return backendFailed("the Sentinel names no usable address of the master");
    return std::move(*master);
}

}  // namespace

Status SentinelRoute::open(const Waiter& waiter, std::chrono::milliseconds until) {
    waiter_ = &waiter;
    links_.close();
    Result<std::string> password = readSecret(credentials_.password);
    if (!password.ok())
        return password.status();
    links_.use(waiter, {credentials_.user, std::move(*password), place_.database, true});
    const std::vector<Server> sentinels = sentinels_;
    return tryInTurn(sentinels, waiter, until,
                     [this](const Server& sentinel, auto share) { return openThrough(sentinel, share); });
}

//  The query to the Sentinel may take half of the time; the rest is left to connect to the master.
Status SentinelRoute::openThrough(const Server& sentinel, std::chrono::milliseconds until) {
    const auto now = monotonicNow();
    Result<Server> master = findMaster(sentinel, now + (until - now) / 2);
    if (!master.ok())
        return failedTo(serverText(sentinel), master.status());
    if (Status failed = links_.connect(*master, until); !failed.ok())
        return failedTo(serverText(sentinel) + ": the master that it names", std::move(failed));
    master_ = std::move(*master);
    const auto found = std::find(sentinels_.begin(), sentinels_.end(), sentinel);
    std::rotate(sentinels_.begin(), found, found + 1);
    return {};
}

Result<Server> SentinelRoute::findMaster(const Server& sentinel, std::chrono::milliseconds until) const {
    RedisConnection connection(makeStream_(), !place_.usesTls());
    Result<RedisReply> reply = RedisReply();
    Status failed = connectTo(connection, sentinel, *waiter_, until, [&](auto share) {
        reply = connection.ask({"SENTINEL", "get-master-addr-by-name", place_.master}, *waiter_, share);
        return reply.status();
    });
    return failed.ok() ? masterIn(*reply, place_.master) : failed;
}

Result<RedisReply> SentinelRoute::ask(std::uint16_t, const RedisCommand& command, std::chrono::milliseconds until) {
    return askCurrent(command, until);
}

Result<RedisReply> SentinelRoute::askCurrent(const RedisCommand& command, std::chrono::milliseconds until) {
    return links_.ask(master_, command, false, until);
}

}  // namespace rdbopen
