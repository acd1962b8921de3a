#include "redis/login.h"

#include "redis/objects.h"
#include "redis/refusal.h"

namespace rdbopen {

namespace {

using Kind = RedisReply::Kind;

//  The login on one connection.
class Login {
public:
    Login(RedisConnection& connection, const RedisLogin& login, const Waiter& waiter, std::chrono::milliseconds until)
        : connection_(connection), login_(login), waiter_(waiter), until_(until) {}

    Status run();

private:
    Status send(RedisCommand authentication);

    RedisConnection& connection_;
    const RedisLogin& login_;
    const Waiter& waiter_;
    const std::chrono::milliseconds until_;
    std::vector<RedisCommand> commands_;  // all commands of one exchange; the first is AUTH
    std::vector<RedisReply> replies_;
};

//  Sends `authentication`, an AUTH, together with all other commands. The other commands set the connection's name,
//  which CLIENT LIST shows, and test the connection. If login_ requires it, they also select the database and query the
//  role.
Status Login::send(RedisCommand authentication) {
    commands_ = {std::move(authentication), {"CLIENT", "SETNAME", "addrpubd"}, {"PING"}};
    if (login_.database != 0)
        commands_.push_back({"SELECT", std::to_string(login_.database)});
    if (login_.primaryOnly)
        commands_.push_back({"ROLE"});
    replies_.clear();
    return connection_.exchange(commands_, replies_, waiter_, until_);
}

//  Returns whether reply is an error answer whose text starts with error.
bool answers(const RedisReply& reply, std::string_view error) {
    return reply.is(Kind::error) && reply.text.starts_with(error);
}

//  Returns ok if reply is the right answer to command (to ROLE: https://redis.io/commands/role). The caller does not
//  pass the answer to CLIENT SETNAME, the second command: a refused name does no harm.
Status accept(const RedisCommand& command, const RedisReply& reply) {
    const std::string& word = command.front();
    if (reply.is(Kind::error))
        return backendFailed(redisRefusal(word, reply.text, reply.quotable));
    if (word != "ROLE")
        return reply.isStatus(word == "PING" ? "PONG" : "OK") ? Status{} : notUnderstood(word);
    if (!reply.is(Kind::array) || reply.elements.empty() || !reply.elements[0].is(Kind::text))
        return notUnderstood(word);
    return reply.elements[0].text == "master" ? Status{} : backendFailed("the server is not a primary but a replica");
}

//  From Redis 6 on, a server without a password accepts any password for the user "default". A server before Redis 6
//  has no users. The settings name the user "default" for it, too. It refuses AUTH with a user, and AUTH is
//  repeated with only the password. If this server has no password, it refuses the second AUTH as well, and the
//  login continues without AUTH. The answer to AUTH is not quoted, because it may contain the password.
Status Login::run() {
    connection_.conceal({login_.user, login_.password});
    const bool isDefault = login_.user == "default";
    Status status = send({"AUTH", login_.user, login_.password});
    if (status.ok() && isDefault && answers(replies_[0], "ERR wrong number of arguments"))
        status = send({"AUTH", login_.password});
    const bool answered = !replies_.empty();
    const bool needless = answered && isDefault && answers(replies_[0], "ERR Client sent AUTH, but no password is set");
    if (answered && replies_[0].is(Kind::error) && !needless)  // the server may close the connection after this answer
        return backendFailed(redisRefusal("AUTH", replies_[0].text, 0));
    if (!status.ok())
        return status;
    if (!needless && !replies_[0].isStatus("OK"))
        return notUnderstood("AUTH");
    for (std::size_t i = 2; i < commands_.size(); ++i)
        if (Status failed = accept(commands_[i], replies_[i]); !failed.ok())
            return failed;
    return {};
}

}  // namespace

Status logInToRedis(RedisConnection& connection, const RedisLogin& login, const Waiter& waiter,
                    std::chrono::milliseconds until) {
    return Login(connection, login, waiter, until).run();
}

}  // namespace rdbopen
