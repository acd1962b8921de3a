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

    Status authenticate();
    Status prepare();

private:
    Status exchange(const std::vector<RedisCommand>& commands, std::vector<RedisReply>& replies) {
        return connection_.exchange(commands, replies, waiter_, until_);
    }

    RedisConnection& connection_;
    const RedisLogin& login_;
    const Waiter& waiter_;
    const std::chrono::milliseconds until_;
};

//  A server without a password accepts any password for the user "default". Servers before Redis 6 have no users and
//  possibly no password; the configured user is then "default", too. Answers are not quoted, because they may contain
//  the password.
Status Login::authenticate() {
    const std::string& user = login_.user;
    connection_.conceal({user, login_.password});
    std::vector<RedisReply> replies;
    if (Status status = exchange({{"AUTH", user, login_.password}}, replies); !status.ok())
        return status;
    if (user == "default" && replies[0].is(Kind::error) && replies[0].text.starts_with("ERR wrong number of arguments"))
        if (Status status = exchange({{"AUTH", login_.password}}, replies); !status.ok())
            return status;
    const bool needless = replies[0].is(Kind::error) && user == "default" &&
                          replies[0].text.starts_with("ERR Client sent AUTH, but no password is set");
    if (needless || replies[0].isStatus("OK"))
        return {};
    if (!replies[0].is(Kind::error))
        return notUnderstood("AUTH");
    return backendFailed(redisRefusal("AUTH", replies[0].text, 0));
}

//  Returns ok if reply is the right answer to command. ROLE: https://redis.io/commands/role
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

//  Sets the connection's name, which CLIENT LIST shows, and ignores a failure of this. Tests the connection, selects
//  the database and queries the role.
Status Login::prepare() {
    std::vector<RedisCommand> commands{{"CLIENT", "SETNAME", "addrpubd"}, {"PING"}};
    if (login_.database != 0)
        commands.push_back({"SELECT", std::to_string(login_.database)});
    if (login_.primaryOnly)
        commands.push_back({"ROLE"});
    std::vector<RedisReply> replies;
    if (Status status = exchange(commands, replies); !status.ok())
        return status;
    for (std::size_t i = 1; i < commands.size(); ++i)
        if (Status failed = accept(commands[i], replies[i]); !failed.ok())
            return failed;
    return {};
}

}  // namespace

Status logInToRedis(RedisConnection& connection, const RedisLogin& login, const Waiter& waiter,
                    std::chrono::milliseconds until) {
    Login attempt(connection, login, waiter, until);
    Status status = attempt.authenticate();
    return status.ok() ? attempt.prepare() : status;
}

}  // namespace rdbopen
