#include "redis/backend.h"

#include "engine/clock.h"
#include "net/secret.h"
#include "net/server_addresses.h"
#include "net/tcp_stream.h"
#include "net/tls_settings.h"
#include "redis/objects.h"
#include "redis/refusal.h"

#include <algorithm>

namespace rdbopen {

namespace {

using Kind = RedisReply::Kind;
using Commands = std::vector<RedisCommand>;

constexpr std::chrono::milliseconds openLimit{10000};
constexpr std::chrono::milliseconds requestLimit{5000};
constexpr std::chrono::milliseconds checkAfter{60000};

struct Settings {
    std::string scheme;
    std::vector<Server> servers;
    std::string socket;  // path of the server's Unix socket, or empty
    std::uint32_t database = 0;
    RedisLimits limits;
    Credentials credentials;
};

class RedisBackend : public Backend, public TagBackend {
public:
    RedisBackend(Settings settings, std::unique_ptr<Stream> stream)
        : settings_(std::move(settings)), connection_(std::move(stream), settings_.scheme == "redis") {}

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

    Status lookUp(std::chrono::milliseconds& until);
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
    RedisConnection connection_;
    ServerAddresses addresses_;
    const ServerAddresses::Connect connect_ = [this](const ServerAddress& address, std::chrono::milliseconds until) {
        return connection_.connect(address, *waiter_, until);
    };
    const Waiter* waiter_ = nullptr;      // set by open
    std::chrono::milliseconds until_{0};  // time limit of the current request
    bool valueChecked_ = false;           // since the last probe
};

std::string RedisBackend::label() const {
    const std::string database = std::to_string(settings_.database);
    if (!settings_.socket.empty())
        return settings_.scheme + "://" + settings_.socket + "?db=" + database;
    return settings_.scheme + "://" + serversText(settings_.servers) + "/" + database;
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
    if (Status failed = lookUp(until); !failed.ok())
        return failed;
    return addresses_.tryEach(waiter, until, connect_, [&](auto share) { return logInUntil(*password, share); });
}

Status RedisBackend::lookUp(std::chrono::milliseconds& until) {
    if (settings_.socket.empty())
        return addresses_.lookUp(settings_.servers, until);
    addresses_.use(socketAddress(settings_.socket).value());
    return {};
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

Status parseDatabase(std::string_view digits, Settings& settings) {
    constexpr std::uint32_t maxDatabase = 2147483647;
    const auto database = parseNumber(digits, maxDatabase);
    if (!database)
        return malformedUrl(settings.socket.empty() ? "the path is not the number of a database"
                                                    : "db is not the number of a database");
    settings.database = *database;
    return {};
}

Status parseExpiry(const std::string& text, std::uint32_t& expire) {
    expire = parseNumber(text, redisMaxExpiry).value_or(0);
    if (expire >= redisMinExpiry)
        return {};
    return malformedUrl("expire is not a number of seconds from " + std::to_string(redisMinExpiry) +
                        " (an unchanged value is repeated after 600) to " + std::to_string(redisMaxExpiry));
}

std::string optionWords(std::string_view scheme) {
    if (scheme == "redis+unix")
        return "it has an option other than db, expire and history";
    if (scheme == "rediss")
        return "it has an option other than expire, history, " + std::string(tlsOptionWords);
    return "it has an option other than expire and history";
}

Status parseOption(const UrlOption& option, Settings& settings) {
    if (option.name == "expire")
        return parseExpiry(option.value, settings.limits.expire);
    if (option.name == "history")
        return parseHistory(option.value, settings.limits.history);
    if (option.name == "db" && !settings.socket.empty())
        return parseDatabase(option.value, settings);
    return malformedUrl(optionWords(settings.scheme));
}

//  Fails for an option that is unknown or given twice.
Status parseOptions(const Url& url, Settings& settings) {
    std::vector<std::string_view> seen;
    for (const UrlOption& option : url.options) {
        if (std::find(seen.begin(), seen.end(), option.name) != seen.end())
            return malformedUrl(option.name + " is given twice");
        seen.push_back(option.name);
        if (Status malformed = parseOption(option, settings); !malformed.ok())
            return malformed;
    }
    return {};
}

Status parseSocket(const Url& url, Settings& settings) {
    const Result<std::string> path = filePathOf({url.scheme, url.authority, url.path, {}});
    if (!path.ok())
        return path.status();
    if (!socketAddress(*path))
        return malformedUrl("the path of a socket has at most 107 bytes");
    settings.socket = *path;
    return {};
}

Status parseServerAndDatabase(const Url& url, Settings& settings) {
    Result<std::vector<Server>> servers = parseServers(url.authority, redisPort);
    if (!servers.ok())
        return servers.status();
    settings.servers = std::move(*servers);
    const std::string_view path = url.path;
    return path.size() < 2 ? Status{} : parseDatabase(path.substr(1), settings);
}

}  // namespace

BackendResult makeRedisBackend(const Url& url, const Credentials& credentials, std::unique_ptr<Stream> stream) {
    Settings settings{.scheme = url.scheme, .servers = {}, .socket = {}, .limits = {}, .credentials = credentials};
    const auto parsePlace = url.scheme == "redis+unix" ? parseSocket : parseServerAndDatabase;
    Status failed = parsePlace(url, settings);
    if (failed.ok())
        failed = parseOptions(url, settings);
    if (!failed.ok())
        return failed;
    return BackendResult(std::make_unique<RedisBackend>(std::move(settings), std::move(stream)));
}

BackendResult makePlainRedisBackend(const Url& url, const Credentials& credentials) {
    return makeRedisBackend(url, credentials, std::make_unique<TcpStream>());
}

}  // namespace rdbopen
