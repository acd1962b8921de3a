#include "redis/backend.h"

#include "engine/clock.h"
#include "net/secret.h"
#include "net/server_addresses.h"
#include "net/tcp_stream.h"
#include "redis/objects.h"
#include "redis/refusal.h"

namespace rdbopen {

namespace {

using Kind = RedisReply::Kind;
using Commands = std::vector<RedisCommand>;

constexpr std::chrono::milliseconds openLimit{10000};
constexpr std::chrono::milliseconds requestLimit{5000};
constexpr std::chrono::milliseconds checkAfter{60000};

struct Settings {
    Server server;
    std::uint32_t database = 0;
    RedisLimits limits;
    Credentials credentials;
};

class RedisBackend : public Backend, public TagBackend {
public:
    explicit RedisBackend(Settings settings) : settings_(std::move(settings)) {}

    std::string label() const override;
    TagBackend* tags() noexcept override { return this; }

    Status open(const Waiter& waiter) override;
    void close() noexcept override { connection_.close(); }
    Status get(RdbTag& tag) override;
    Status import(const RdbTag& tag) override;
    Status put(std::span<const RdbSnapshot> records) override;
    int watchedDescriptor() const noexcept override { return connection_.descriptor(); }
    std::chrono::milliseconds checkInterval() const noexcept override { return checkAfter; }
    Status probe() override;
    Status checkValue(const RdbSnapshot& record) override;

private:
    //  Executes one request at the connected server.
    using Request = std::function<Status()>;

    Status atServer(const Request& request);
    Status atOthers(Status status, const Request& request);
    Status logInUntil(const std::string& password, std::chrono::milliseconds until);
    Status exchange(const Commands& commands, std::vector<RedisReply>& replies);
    Status logIn(const std::string& password);
    Status prepareConnection();
    Result<RedisReply> ask(RedisCommand command);
    Status runScript(const RedisScript& script, const RedisCommand& arguments);
    Status queryTag(RdbTag& tag);
    Status ping();
    Status queryValue(const RdbSnapshot& record);

    const Settings settings_;
    RedisConnection connection_{std::make_unique<TcpStream>()};
    ServerAddresses addresses_;
    const ServerAddresses::Connect connect_ = [this](const ServerAddress& address, std::chrono::milliseconds until) {
        return connection_.connect(address, *waiter_, until);
    };
    const Waiter* waiter_ = nullptr;      // set by open
    std::chrono::milliseconds until_{0};  // time limit of the current request
    bool valueChecked_ = false;           // since the last probe
};

std::string RedisBackend::label() const {
    return "redis://" + serverText(settings_.server) + "/" + std::to_string(settings_.database);
}

Status RedisBackend::exchange(const Commands& commands, std::vector<RedisReply>& replies) {
    return connection_.exchange(commands, replies, *waiter_, until_);
}

Status RedisBackend::open(const Waiter& waiter) {
    waiter_ = &waiter;
    valueChecked_ = false;
    const Result<std::string> password = readSecret(settings_.credentials.password);
    if (!password.ok())
        return password.status();
    std::chrono::milliseconds until = monotonicNow() + openLimit;
    if (Status failed = addresses_.lookUp(settings_.server, until); !failed.ok())
        return failed;
    return addresses_.tryEach(waiter, until, connect_, [&](auto share) { return logInUntil(*password, share); });
}

//  After any failure the next address is tried, which is safe because a login changes nothing at a server.
Status RedisBackend::logInUntil(const std::string& password, std::chrono::milliseconds until) {
    until_ = until;
    Status status = logIn(password);
    if (status.ok())
        status = prepareConnection();
    status.failover = !status.ok();
    return status;
}

Status RedisBackend::atServer(const Request& request) {
    until_ = monotonicNow() + requestLimit;
    Status status = request();
    return status.failover && addresses_.hasOthers() ? atOthers(std::move(status), request) : status;
}

//  Repeats request at the other addresses. Does not resolve the name again, because that may take longer than the time
//  limit of a request. If the member failover of each status is true, returns errorBackendFailed, so that the worker
//  opens the back end again.
Status RedisBackend::atOthers(Status status, const Request& request) {
    const Result<std::string> password = readSecret(settings_.credentials.password);
    if (!password.ok())
        return password.status();
    const auto until = until_;
    status = addresses_.tryOthers(std::move(status), *waiter_, until, connect_, [&](auto share) {
        Status tried = logInUntil(*password, share);
        until_ = until;
        return tried.ok() ? request() : tried;
    });
    if (status.failover)
        status.code = errorBackendFailed;
    return status;
}

//  A server without a password accepts any password for the user "default". Servers before Redis 6 have no users and
//  possibly no password; the configured user is then "default", too. Answers are not quoted, because they may contain
//  the password.
Status RedisBackend::logIn(const std::string& password) {
    const std::string& user = settings_.credentials.user;
    connection_.conceal({user, password});
    std::vector<RedisReply> replies;
    if (Status status = exchange({{"AUTH", user, password}}, replies); !status.ok())
        return status;
    if (user == "default" && replies[0].is(Kind::error) && replies[0].text.starts_with("ERR wrong number of arguments"))
        if (Status status = exchange({{"AUTH", password}}, replies); !status.ok())
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
Status RedisBackend::prepareConnection() {
    Commands commands{{"CLIENT", "SETNAME", "addrpubd"}, {"PING"}};
    if (settings_.database != 0)
        commands.push_back({"SELECT", std::to_string(settings_.database)});
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

Result<RedisReply> RedisBackend::ask(RedisCommand command) {
    std::vector<RedisReply> replies;
    if (Status status = exchange({std::move(command)}, replies); !status.ok())
        return status;
    return std::move(replies.front());
}

Status RedisBackend::get(RdbTag& tag) {
    Status unusable = verifyName(tag.name);
    return unusable.ok() ? atServer([&] { return queryTag(tag); }) : unusable;
}

Status RedisBackend::queryTag(RdbTag& tag) {
    const Result<RedisReply> reply = ask(tagQuery(tag.name));
    if (!reply.ok())
        return reply.status();
    const Result<std::optional<RedisTag>> held = readTag(*reply, tag.name);
    if (!held.ok())
        return held.status();
    if (!*held)
        return {errorNoSuchTag, {}};
    tag.tagclass = (*held)->tagclass;
    tag.valuetype = (*held)->type;
    tag.importflag = (*held)->importflag;
    return {};
}

Status RedisBackend::import(const RdbTag& tag) {
    if (Status unusable = verifyName(tag.name); !unusable.ok())
        return unusable;
    const RedisCommand arguments = importArguments(tag, settings_.limits);
    return atServer([&] { return runScript(redisImportScript, arguments); });
}

Status RedisBackend::put(std::span<const RdbSnapshot> records) {
    for (const RdbSnapshot& record : records)
        if (Status unusable = verifyName(record.name); !unusable.ok())
            return unusable;
    const RedisCommand arguments = putArguments(records, settings_.limits);
    return atServer([&] { return runScript(redisPutScript, arguments); });
}

//  A server keeps a script from its first EVAL until it restarts or is told to forget it.
Status RedisBackend::runScript(const RedisScript& script, const RedisCommand& arguments) {
    const auto run = [&](const char* word, std::string_view name) {
        RedisCommand command{word, std::string(name)};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return ask(std::move(command));
    };
    Result<RedisReply> reply = run("EVALSHA", script.hash);
    if (reply.ok() && reply->is(Kind::error) && reply->text.starts_with("NOSCRIPT"))
        reply = run("EVAL", script.source);
    return reply.ok() ? readOutcome(*reply, script) : reply.status();
}

//  A value that is checked tests the connection, too. A probe that was followed by such a check will be again, or by
//  a put if the server has lost the value. So a check of an idle connection is one round trip.
Status RedisBackend::probe() {
    if (std::exchange(valueChecked_, false))
        return {};
    return atServer([this] { return ping(); });
}

Status RedisBackend::checkValue(const RdbSnapshot& record) {
    valueChecked_ = true;
    return atServer([&] { return queryValue(record); });
}

Status RedisBackend::ping() {
    const Result<RedisReply> reply = ask({"PING"});
    if (!reply.ok())
        return reply.status();
    if (reply->is(Kind::error))
        return refusedByRedis("PING", *reply);
    return reply->isStatus("PONG") ? Status{} : notUnderstood("PING");
}

Status RedisBackend::queryValue(const RdbSnapshot& record) {
    const Result<RedisReply> reply = ask(valueQuery(record.name));
    if (!reply.ok())
        return reply.status();
    const Result<std::optional<RedisValue>> held = readValue(*reply, record.name);
    if (!held.ok())
        return held.status();
    return *held && (*held)->equals(record) ? Status{} : Status{errorNotHeld, {}};
}

Result<std::uint32_t> parseDatabase(const std::string& path) {
    constexpr std::uint32_t maxDatabase = 2147483647;
    if (path.empty() || path == "/")
        return 0U;
    const auto database = parseNumber(std::string_view(path).substr(1), maxDatabase);
    if (!database)
        return malformedUrl("the path is not the number of a database");
    return *database;
}

Status parseExpiry(const std::string& text, std::uint32_t& expire) {
    expire = parseNumber(text, redisMaxExpiry).value_or(0);
    if (expire >= redisMinExpiry)
        return {};
    return malformedUrl("expire is not a number of seconds from " + std::to_string(redisMinExpiry) +
                        " (an unchanged value is repeated after 600) to " + std::to_string(redisMaxExpiry));
}

Result<RedisLimits> parseLimits(const std::vector<UrlOption>& options) {
    RedisLimits limits;
    bool expire = false;
    bool history = false;
    for (const UrlOption& option : options) {
        if (option.name != "expire" && option.name != "history")
            return malformedUrl("it has an option other than expire and history");
        if (std::exchange(option.name == "expire" ? expire : history, true))
            return malformedUrl(option.name + " is given twice");
        Status malformed = option.name == "expire" ? parseExpiry(option.value, limits.expire)
                                                   : parseHistory(option.value, limits.history);
        if (!malformed.ok())
            return malformed;
    }
    return limits;
}

}  // namespace

BackendResult makeRedisBackend(const Url& url, const Credentials& credentials) {
    Result<Server> server = parseServer(url.authority, redisPort);
    if (!server.ok())
        return server.status();
    const Result<std::uint32_t> database = parseDatabase(url.path);
    if (!database.ok())
        return database.status();
    const Result<RedisLimits> limits = parseLimits(url.options);
    if (!limits.ok())
        return limits.status();
    return BackendResult(std::make_unique<RedisBackend>(Settings{std::move(*server), *database, *limits, credentials}));
}

}  // namespace rdbopen
