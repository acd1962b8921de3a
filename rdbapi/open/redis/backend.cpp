#include "redis/backend.h"

#include "engine/clock.h"
#include "net/secret.h"
#include "net/server_addresses.h"
#include "redis/objects.h"
#include "redis/refusal.h"

namespace rdbopen {

namespace {

using Kind = RedisReply::Kind;
using Commands = std::vector<RedisCommand>;

constexpr std::chrono::milliseconds openLimit{10000};
constexpr std::chrono::milliseconds requestLimit{5000};
constexpr std::chrono::milliseconds checkAfter{60000};

//  Maximum number of attempts of a transaction. An attempt fails if another client changes the watched keys during it.
constexpr int maxAttempts = 5;

struct Settings {
    Server server;
    std::uint32_t database = 0;
    std::uint32_t expire = 0;  // seconds, 0 for never
    Credentials credentials;
};

class RedisBackend : public Backend, public TagBackend {
public:
    explicit RedisBackend(Settings settings) : settings_(std::move(settings)) {}

    std::string label() const override;
    TagBackend* tags() noexcept override { return this; }

    Status open(const Waiter& waiter) override;
    void close() noexcept override { connection_.close(); }
    Status get(RdbTag& tag) override {
        return atServer([&] { return queryTag(tag); });
    }
    Status import(const RdbTag& tag) override;
    Status put(std::span<const RdbSnapshot> records) override;
    int watchedDescriptor() const noexcept override { return connection_.descriptor(); }
    std::chrono::milliseconds checkInterval() const noexcept override { return checkAfter; }
    Status probe() override {
        return atServer([this] { return ping(); });
    }
    Status checkValue(const RdbSnapshot& record) override {
        return atServer([&] { return queryValue(record); });
    }

private:
    enum class Attempt { done, disturbed };
    struct ServerState {
        std::int64_t now = 0;  // ms, the server's clock
        std::vector<RedisHeld> held;
    };

    //  A request, executed on the current connection.
    using Request = std::function<Status()>;

    Status atServer(const Request& request);
    Status atOthers(Status status, const Request& request);
    Status logInUntil(const std::string& password, std::chrono::milliseconds until);
    Status exchange(const Commands& commands, std::vector<RedisReply>& replies);
    Status logIn(const std::string& password);
    Status prepareConnection();
    Result<ServerState> beginTransaction(const std::vector<const char*>& names);
    Result<ServerState> readServerState(std::span<const RedisReply> replies, const std::vector<const char*>& names);
    Status abortTransaction(Status status);
    Status endTransaction(Commands commands, Attempt& attempt);
    template <class Append>
    Status transaction(const std::vector<const char*>& names, Append append);
    template <class Append>
    Status runTransaction(const std::vector<const char*>& names, Append append);
    Status queryTag(RdbTag& tag);
    Status ping();
    Status queryValue(const RdbSnapshot& record);
    bool holdsAll(std::span<const RdbSnapshot> records, const ServerState& state) const;
    Status appendRecords(std::span<const RdbSnapshot> records, const ServerState& state, Commands& commands);

    const Settings settings_;
    RedisConnection connection_;
    ServerAddresses addresses_;
    const ServerAddresses::Connect connect_ = [this](const ServerAddress& address, std::chrono::milliseconds until) {
        return connection_.connect(address, *waiter_, until);
    };
    const Waiter* waiter_ = nullptr;      // set by open
    std::chrono::milliseconds until_{0};  // time limit of the current request
    bool queueing_ = false;               // inside MULTI

    //  Server time of a put whose transaction was sent, but not answered (0: none). If the same put is repeated and the
    //  server has the value with this time, the put took effect and only its reply was lost.
    std::int64_t unansweredPut_ = 0;
};

std::string RedisBackend::label() const {
    return "redis://" + serverText(settings_.server) + "/" + std::to_string(settings_.database);
}

Status RedisBackend::exchange(const Commands& commands, std::vector<RedisReply>& replies) {
    return connection_.exchange(commands, replies, *waiter_, until_);
}

Status RedisBackend::open(const Waiter& waiter) {
    waiter_ = &waiter;
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
    queueing_ = false;
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

Status RedisBackend::queryTag(RdbTag& tag) {
    Commands commands;
    appendTagQuery(commands, tag.name);
    std::vector<RedisReply> replies;
    if (Status status = exchange(commands, replies); !status.ok())
        return status;
    std::span<const RedisReply> answers(replies);
    const Result<std::optional<RedisTag>> held = readTag(answers, tag.name);
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
    return transaction({tag.name}, [&](const ServerState& state, Commands& commands) {
        appendImport(commands, tag, state.now, settings_.expire);
        return Status{};
    });
}

Status RedisBackend::put(std::span<const RdbSnapshot> records) {
    std::vector<const char*> names;
    for (const RdbSnapshot& record : records)
        names.push_back(record.name);
    Status status = transaction(names, [&](const ServerState& state, Commands& commands) {
        if (unansweredPut_ != 0 && holdsAll(records, state))
            return Status{};
        Status refused = appendRecords(records, state, commands);
        if (refused.ok())
            unansweredPut_ = state.now;
        return refused;
    });
    if (status.ok())
        unansweredPut_ = 0;
    return status;
}

//  Returns whether the server has every one of records, each stored at the time unansweredPut_.
bool RedisBackend::holdsAll(std::span<const RdbSnapshot> records, const ServerState& state) const {
    for (std::size_t i = 0; i < records.size(); ++i) {
        const auto& value = state.held[i].value;
        if (!value || value->time != unansweredPut_ || !value->equals(records[i]))
            return false;
    }
    return true;
}

Status RedisBackend::appendRecords(std::span<const RdbSnapshot> records, const ServerState& state, Commands& commands) {
    for (std::size_t i = 0; i < records.size(); ++i) {
        const auto& [tag, value] = state.held[i];
        if (!tag)
            return {errorNoSuchTag, {}};
        if (tag->tagclass != RDB_TAG_CLASS_USABLE)
            return {errorTagNotUsable, {}};
        const bool changed = !value || !value->equals(records[i]);
        appendPut(commands, records[i], state.now, settings_.expire, changed);
    }
    return {};
}

//  Reads the server's data for names and calls append, which adds the commands that write. Executes these commands
//  atomically. Writes nothing if append fails or adds no command. May call append several times.
template <class Append>
Status RedisBackend::transaction(const std::vector<const char*>& names, Append append) {
    return atServer([&] { return runTransaction(names, append); });
}

template <class Append>
Status RedisBackend::runTransaction(const std::vector<const char*>& names, Append append) {
    for (int i = 0; i < maxAttempts; ++i) {
        const Result<ServerState> state = beginTransaction(names);
        if (!state.ok())
            return abortTransaction(state.status());
        Commands commands;
        Status status = append(*state, commands);
        if (!status.ok() || commands.empty())
            return abortTransaction(std::move(status));
        Attempt attempt = Attempt::done;
        status = endTransaction(std::move(commands), attempt);
        if (attempt == Attempt::done)
            return status;
    }
    return serverRefused("other clients keep changing the same keys");
}

//  Sends MULTI together with the queries and waits for its answer, so that no write is sent outside of a transaction.
Result<RedisBackend::ServerState> RedisBackend::beginTransaction(const std::vector<const char*>& names) {
    Commands commands{{"WATCH"}, {"TIME"}};
    for (const char* name : names) {
        appendKeys(commands[0], name);
        appendQuery(commands, name);
    }
    commands.push_back({"MULTI"});
    std::vector<RedisReply> replies;
    if (Status status = exchange(commands, replies); !status.ok())
        return status;
    queueing_ = replies.back().isStatus("OK");
    return readServerState(replies, names);
}

Result<RedisBackend::ServerState> RedisBackend::readServerState(std::span<const RedisReply> replies,
                                                                const std::vector<const char*>& names) {
    for (const auto& [command, reply] : {std::pair("WATCH", &replies.front()), std::pair("MULTI", &replies.back())}) {
        if (reply->is(Kind::error))
            return refusedByRedis(command, *reply);
        if (!reply->isStatus("OK"))
            return notUnderstood(command);
    }
    const Result<std::int64_t> now = readTime(replies[1]);
    if (!now.ok())
        return now.status();
    ServerState state{*now, {}};
    replies = replies.subspan(2);
    for (const char* name : names) {
        Result<RedisHeld> held = readHeld(replies, name);
        if (!held.ok())
            return held.status();
        state.held.push_back(std::move(*held));
    }
    return state;
}

//  Discards the transaction and stops watching its keys. Returns status, or the failure to do so.
Status RedisBackend::abortTransaction(Status status) {
    if (status.code == errorBackendFailed)
        return status;
    std::vector<RedisReply> replies;
    Status dropped = exchange({{queueing_ ? "DISCARD" : "UNWATCH"}}, replies);
    if (!dropped.ok())
        return dropped;
    if (queueing_ && !replies[0].isStatus("OK"))
        return notUnderstood("DISCARD");
    queueing_ = false;
    return status;
}

//  Sends commands and executes the transaction. Sets attempt to disturbed if another client changed the keys. In
//  this case, and if the server refuses EXEC, nothing is written.
Status RedisBackend::endTransaction(Commands commands, Attempt& attempt) {
    const std::size_t count = commands.size();
    commands.push_back({"EXEC"});
    std::vector<RedisReply> replies;
    if (Status status = exchange(commands, replies); !status.ok())
        return status;
    queueing_ = false;
    for (std::size_t i = 0; i < replies.size(); ++i)
        if (replies[i].is(Kind::error))
            return refusedByRedis(commands[i].front(), replies[i]);
    const RedisReply& result = replies.back();
    if (result.is(Kind::nil)) {
        attempt = Attempt::disturbed;
        return {};
    }
    if (!result.is(Kind::array) || result.elements.size() != count)
        return notUnderstood("EXEC");
    for (std::size_t i = 0; i < count; ++i)
        if (result.elements[i].is(Kind::error))
            return refusedByRedis(commands[i].front(), result.elements[i]);
    return {};
}

Status RedisBackend::ping() {
    std::vector<RedisReply> replies;
    if (Status status = exchange({{"PING"}}, replies); !status.ok())
        return status;
    if (replies[0].is(Kind::error))
        return refusedByRedis("PING", replies[0]);
    return replies[0].isStatus("PONG") ? Status{} : notUnderstood("PING");
}

Status RedisBackend::queryValue(const RdbSnapshot& record) {
    Commands commands;
    appendValueQuery(commands, record.name);
    std::vector<RedisReply> replies;
    if (Status status = exchange(commands, replies); !status.ok())
        return status;
    std::span<const RedisReply> answers(replies);
    const Result<std::optional<RedisValue>> held = readValue(answers, record.name);
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

Result<std::uint32_t> parseExpiry(const std::vector<UrlOption>& options) {
    std::uint32_t expire = 0;
    for (const UrlOption& option : options) {
        if (option.name != "expire")
            return malformedUrl("it has an option other than expire");
        if (expire != 0)
            return malformedUrl("expire is given twice");
        expire = parseNumber(option.value, redisMaxExpiry).value_or(0);
        if (expire < redisMinExpiry)
            return malformedUrl("expire is not a number of seconds from " + std::to_string(redisMinExpiry) +
                                " (an unchanged value is repeated after 600) to " + std::to_string(redisMaxExpiry));
    }
    return expire;
}

}  // namespace

BackendResult makeRedisBackend(const Url& url, const Credentials& credentials) {
    Result<Server> server = parseServer(url.authority, redisPort);
    if (!server.ok())
        return server.status();
    const Result<std::uint32_t> database = parseDatabase(url.path);
    if (!database.ok())
        return database.status();
    const Result<std::uint32_t> expire = parseExpiry(url.options);
    if (!expire.ok())
        return expire.status();
    return BackendResult(std::make_unique<RedisBackend>(Settings{std::move(*server), *database, *expire, credentials}));
}

}  // namespace rdbopen
