#include "redis/backend.h"

#include "engine/clock.h"
#include "net/tcp_stream.h"
#include "redis/cluster_route.h"
#include "redis/inspector.h"
#include "redis/objects.h"
#include "redis/sentinel_route.h"
#include "redis/server_route.h"

#include <map>

namespace rdbopen {

namespace {

using Kind = RedisReply::Kind;

constexpr std::chrono::milliseconds openLimit{10000};
constexpr std::chrono::milliseconds requestLimit{5000};
constexpr std::chrono::milliseconds checkAfter{60000};

void copyTo(RdbTag& tag, const RedisTag& stored) noexcept {
    tag.tagclass = stored.tagclass;
    tag.valuetype = stored.type;
    tag.importflag = stored.importflag;
}

class RedisBackend : public Backend, public TagBackend {
public:
    RedisBackend(std::unique_ptr<RedisRoute> route, RedisLimits limits, const RedisScript& putScript)
        : route_(std::move(route)), limits_(limits), putScript_(putScript),
          inspector_(*route_, limits, &putScript == &redisClusterPutScript) {}

    std::string label() const override { return route_->label(); }
    TagBackend* tags() noexcept override { return this; }
    Inspector* inspector() noexcept override { return &inspector_; }

    Status open(const Waiter& waiter) override;
    void close() noexcept override { route_->close(); }
    Status get(RdbTag& tag) override;
    Status import(const RdbTag& tag) override;
    Status put(std::span<const RdbSnapshot> records) override;
    Status refresh(const RdbSnapshot& record, RdbTag& tag) override;
    bool refreshIsOneExchange() const noexcept override { return true; }
    int watchedDescriptor() const noexcept override { return route_->descriptor(); }
    std::chrono::milliseconds checkInterval() const noexcept override { return checkAfter; }
    Status probe() override;
    Status checkValue(const RdbSnapshot& record) override;

private:
    using Groups = std::map<std::uint16_t, std::vector<RdbSnapshot>>;

    Status putGroups(const Groups& groups);
    Status putGroup(std::uint16_t group, std::span<const RdbSnapshot> records);
    Result<RedisReply> runScript(std::uint16_t group, const RedisScript& script, const RedisCommand& arguments);
    Result<std::optional<RedisTag>> queryTag(const char* name);

    const std::unique_ptr<RedisRoute> route_;
    const RedisLimits limits_;
    const RedisScript& putScript_;
    std::chrono::milliseconds until_{0};  // time limit of the current request
    bool valueFollows_ = false;           // checkValue or refresh was called since the last probe
    RedisInspector inspector_;
};

Status RedisBackend::open(const Waiter& waiter) {
    valueFollows_ = false;
    return route_->open(waiter, monotonicNow() + openLimit);
}

Status RedisBackend::get(RdbTag& tag) {
    if (Status unusable = verifyName(tag.name); !unusable.ok())
        return unusable;
    until_ = monotonicNow() + requestLimit;
    const Result<std::optional<RedisTag>> held = queryTag(tag.name);
    if (!held.ok())
        return held.status();
    if (!*held)
        return {errorNoSuchTag, {}};
    copyTo(tag, **held);
    return {};
}

Result<std::optional<RedisTag>> RedisBackend::queryTag(const char* name) {
    const Result<RedisReply> reply = route_->ask(route_->groupOf(name), tagQuery(name), until_);
    return reply.ok() ? readTag(*reply, name) : reply.status();
}

Status RedisBackend::import(const RdbTag& tag) {
    if (Status unusable = verifyName(tag.name); !unusable.ok())
        return unusable;
    until_ = monotonicNow() + requestLimit;
    const Result<RedisReply> reply =
        runScript(route_->groupOf(tag.name), redisImportScript, importArguments(tag, limits_));
    return reply.ok() ? readOutcome(*reply, redisImportScript) : reply.status();
}

Status RedisBackend::put(std::span<const RdbSnapshot> records) {
    Groups groups;
    for (const RdbSnapshot& record : records) {
        if (Status unusable = verifyName(record.name); !unusable.ok())
            return unusable;
        groups[route_->groupOf(record.name)].push_back(record);
    }
    until_ = monotonicNow() + requestLimit;
    return putGroups(groups);
}

//  A script can only have the keys of one group. So, if there are several groups, all tags are checked first: a tag
//  that is missing or not usable is then found before anything is written.
Status RedisBackend::putGroups(const Groups& groups) {
    for (const auto& [group, records] : groups) {
        for (std::size_t i = 0; groups.size() > 1 && i < records.size(); ++i) {
            const Result<std::optional<RedisTag>> tag = queryTag(records[i].name);
            if (!tag.ok())
                return tag.status();
            if (!*tag || (*tag)->tagclass != RDB_TAG_CLASS_USABLE)
                return {*tag ? errorTagNotUsable : errorNoSuchTag, {}};
        }
    }
    for (const auto& [group, records] : groups)
        if (Status failed = putGroup(group, records); !failed.ok())
            return failed;
    return {};
}

Status RedisBackend::putGroup(std::uint16_t group, std::span<const RdbSnapshot> records) {
    const Result<RedisReply> reply = runScript(group, putScript_, putArguments(records, limits_));
    return reply.ok() ? readOutcome(*reply, putScript_) : reply.status();
}

//  The script that puts a value reads the tag anyway, so one round trip is enough.
Status RedisBackend::refresh(const RdbSnapshot& record, RdbTag& tag) {
    if (Status unusable = verifyName(record.name); !unusable.ok())
        return unusable;
    until_ = monotonicNow() + requestLimit;
    const Result<RedisReply> reply =
        runScript(route_->groupOf(record.name), putScript_, refreshArguments(record, tag, limits_));
    if (!reply.ok())
        return reply.status();
    valueFollows_ = true;
    const Result<RedisTag> stored = readStoredTag(*reply, putScript_);
    if (!stored.ok())
        return stored.status();
    copyTo(tag, *stored);
    return {};
}

//  A server stores a script at the first EVAL of the script. It loses the script at a restart, and may delete it
//  earlier, for example at SCRIPT FLUSH.
Result<RedisReply> RedisBackend::runScript(std::uint16_t group, const RedisScript& script,
                                           const RedisCommand& arguments) {
    const auto run = [&](const char* word, std::string_view name) {
        RedisCommand command{word, std::string(name)};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return route_->ask(group, command, until_);
    };
    Result<RedisReply> reply = run("EVALSHA", script.hash);
    if (reply.ok() && reply->is(Kind::error) && reply->text.starts_with("NOSCRIPT"))
        reply = run("EVAL", script.source);
    return reply;
}

//  If checkValue or refresh was called since the last probe, the worker checks or puts the value right after this
//  probe. This tests the connection, too, so probe sends no PING, and a check of an idle connection is one round trip.
//  If the worker has forgotten the value meanwhile, only the next probe tests the connection.
Status RedisBackend::probe() {
    if (std::exchange(valueFollows_, false))
        return {};
    until_ = monotonicNow() + requestLimit;
    const Result<RedisReply> reply = route_->askCurrent({"PING"}, until_);
    if (!reply.ok())
        return reply.status();
    if (reply->is(Kind::error))
        return refusedByRedis("PING", *reply);
    return reply->isStatus("PONG") ? Status{} : notUnderstood("PING");
}

Status RedisBackend::checkValue(const RdbSnapshot& record) {
    valueFollows_ = true;
    until_ = monotonicNow() + requestLimit;
    const Result<RedisReply> reply = route_->ask(route_->groupOf(record.name), valueQuery(record.name), until_);
    if (!reply.ok())
        return reply.status();
    const Result<std::optional<RedisValue>> held = readValue(*reply, record.name);
    if (!held.ok())
        return held.status();
    return *held && (*held)->equals(record) ? Status{} : Status{errorNotHeld, {}};
}

std::unique_ptr<RedisRoute> makeRoute(RedisPlace place, const Credentials& credentials, const MakeStream& makeStream) {
    if (place.isCluster())
        return std::make_unique<ClusterRoute>(std::move(place), credentials, makeStream);
    if (place.hasSentinels())
        return std::make_unique<SentinelRoute>(std::move(place), credentials, makeStream);
    return std::make_unique<ServerRoute>(std::move(place), credentials, makeStream());
}

}  // namespace

BackendResult makeRedisBackend(const Url& url, const Credentials& credentials, const MakeStream& makeStream) {
    Result<RedisPlace> place = parseRedisPlace(url);
    if (!place.ok())
        return place.status();
    const RedisLimits limits = place->limits;
    const RedisScript& putScript = place->isCluster() ? redisClusterPutScript : redisPutScript;
    auto route = makeRoute(std::move(*place), credentials, makeStream);
    return BackendResult(std::make_unique<RedisBackend>(std::move(route), limits, putScript));
}

BackendResult makePlainRedisBackend(const Url& url, const Credentials& credentials) {
    return makeRedisBackend(url, credentials, [] { return std::make_unique<TcpStream>(); });
}

}  // namespace rdbopen
