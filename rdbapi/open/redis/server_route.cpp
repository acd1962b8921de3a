#include "redis/server_route.h"

#include "net/secret.h"
#include "redis/objects.h"
#include "redis/refusal.h"

namespace rdbopen {

Result<RedisLogin> ServerRoute::login() const {
    Result<std::string> password = readSecret(credentials_.password);
    if (!password.ok())
        return password.status();
    return RedisLogin{credentials_.user, std::move(*password), place_.database, place_.servers.size() > 1};
}

Status ServerRoute::open(const Waiter& waiter, std::chrono::milliseconds until) {
    waiter_ = &waiter;
    const Result<RedisLogin> login = this->login();
    if (!login.ok())
        return login.status();
    if (Status failed = lookUp(until); !failed.ok())
        return failed;
    return addresses_.tryEach(waiter, until, connect_, [&](auto share) { return logIn(*login, share); });
}

Status ServerRoute::lookUp(std::chrono::milliseconds& until) {
    if (place_.socket.empty())
        return addresses_.lookUp(place_.servers, until);
    addresses_.use(socketAddress(place_.socket).value());
    return {};
}

//  After any failure the next address is tried. This is safe, because a login changes no data at a server.
Status ServerRoute::logIn(const RedisLogin& login, std::chrono::milliseconds until) {
    Status status = logInToRedis(connection_, login, *waiter_, until);
    status.failover = !status.ok();
    return status;
}

//  Returns ok if no other server needs to be tried. Otherwise returns a failure with `failover`: another server may be
//  able to serve command. The servers of a list may differ in their memory, disk and replicas; the addresses of one
//  name are assumed not to differ.
Status ServerRoute::wrongServer(const RedisCommand& command, const RedisReply& reply) const {
    const bool isList = place_.servers.size() > 1;
    if (!reply.is(RedisReply::Kind::error) ||
        !(redisIsWrongServer(reply.text) || (isList && redisTakesNoWrites(reply.text))))
        return {};
    Status status = refusedByRedis(command.front(), reply);
    status.failover = true;
    return status;
}

Result<RedisReply> ServerRoute::ask(std::uint16_t, const RedisCommand& command, std::chrono::milliseconds until) {
    return askCurrent(command, until);
}

Result<RedisReply> ServerRoute::askCurrent(const RedisCommand& command, std::chrono::milliseconds until) {
    Result<RedisReply> reply = connection_.ask(command, *waiter_, until);
    if (!reply.ok() || !addresses_.hasOthers())
        return reply;
    Status wrong = wrongServer(command, *reply);
    return wrong.ok() ? std::move(reply) : askOthers(std::move(wrong), command, until);
}

//  Repeats command at the other addresses. Does not resolve the names of the url again, because this may take longer
//  than the time limit of a request. If no server serves command, returns errorBackendFailed, so that the worker opens
//  the back end again.
Result<RedisReply> ServerRoute::askOthers(Status status, const RedisCommand& command, std::chrono::milliseconds until) {
    const Result<RedisLogin> login = this->login();
    if (!login.ok())
        return login.status();
    Result<RedisReply> reply = RedisReply();
    status = addresses_.tryOthers(std::move(status), *waiter_, until, connect_, [&](auto share) {
        if (Status failed = logIn(*login, share); !failed.ok())
            return failed;
        reply = connection_.ask(command, *waiter_, until);
        return reply.ok() ? wrongServer(command, *reply) : reply.status();
    });
    if (status.ok())
        return reply;
    status.code = errorBackendFailed;
    return status;
}

}  // namespace rdbopen
