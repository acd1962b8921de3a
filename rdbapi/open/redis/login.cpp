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

//  Sets the connection's name, which CLIENT LIST shows, and ignores a failure of this. Tests the connection and selects
//  the database.
Status Login::prepare() {
    std::vector<RedisCommand> commands{{"CLIENT", "SETNAME", "addrpubd"}, {"PING"}};
    if (login_.database != 0)
        commands.push_back({"SELECT", std::to_string(login_.database)});
    std::vector<RedisReply> replies;
    if (Status status = exchange(commands, replies); !status.ok())
        return status;
    for (std::size_t i = 1; i < commands.size(); ++i) {
        if (replies[i].is(Kind::error))
            return backendFailed(redisRefusal(commands[i].front(), replies[i].text, replies[i].quotable));
        if (!replies[i].isStatus(i == 1 ? "PONG" : "OK"))
            return notUnderstood(commands[i].front());
    }
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
