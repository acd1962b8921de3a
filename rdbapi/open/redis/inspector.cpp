#include "redis/inspector.h"

#include "engine/clock.h"
#include "redis/refusal.h"

#include <algorithm>

namespace rdbopen {

namespace {

using Kind = RedisReply::Kind;

constexpr std::chrono::milliseconds loginLimit{10000};
constexpr std::chrono::milliseconds operationLimit{5000};

constexpr char foreignKey[] = "it belongs to another program";

}  // namespace

Status RedisInspector::openToRead(const Waiter& waiter) {
    return route_.open(waiter, monotonicNow() + loginLimit);
}

Result<RedisReply> RedisInspector::ask(const RedisCommand& command) {
    Result<RedisReply> reply = route_.ask(route_.groupOf(name_), command, until_);
    if (reply.ok() && reply->is(Kind::error))
        return refusedByRedis(command.front(), *reply);
    return reply;
}

//  Returns whether the key exists with this type. A key of another type is added as a key of another program.
Result<bool> RedisInspector::findKey(const std::string& key, const char* type) {
    const Result<RedisReply> reply = ask({"TYPE", key});
    if (!reply.ok())
        return reply.status();
    if (!reply->is(Kind::status))
        return notUnderstood("TYPE");
    if (reply->text != type && reply->text != "none")
        add(key, {}, true);
    return reply->text == type;
}

Result<Holdings> RedisInspector::held(const HostNames& host) {
    if (Status unusable = verifyName(host.name); !unusable.ok())
        return unusable;
    until_ = monotonicNow() + operationLimit;
    name_ = host.name;
    value_.reset();
    holdings_ = {};
    for (const auto find : {&RedisInspector::findTag, &RedisInspector::findValue, &RedisInspector::findHistory})
        if (Status failed = (this->*find)(); !failed.ok())
            return failed;
    keepAllBesideForeignKeys();
    holdings_.addresses = addressesIn(value_ ? value_->value : std::string());
    return holdings_;
}

void RedisInspector::add(const std::string& key, const std::string& contents, bool isForeign) {
    holdings_.records.push_back({key + (isForeign ? "" : contents), isForeign ? foreignKey : ""});
}

//  Sends the script with EVAL, for the same reason as removeShown.
Status RedisInspector::examine(const HostNames& host, std::vector<Examination>& results) {
    if (Status unusable = verifyName(host.name); !unusable.ok())
        return unusable;
    RedisCommand command{"EVAL", std::string(redisExamineScript.source), "3"};
    for (const char* kind : {"tag:", "value:", "history:"})
        command.push_back(keyOf(kind, host.name));
    command.insert(command.end(), {std::to_string(limits_.expire), std::to_string(limits_.history),
                                   isCluster_ ? "SPUBLISH" : "PUBLISH", keyOf("changed:", host.name)});
    const Result<RedisReply> reply = route_.ask(route_.groupOf(host.name), command, monotonicNow() + operationLimit);
    if (!reply.ok())
        return reply.status();
    //  A server before Redis 7 cannot test permissions.
    const bool tested = reply->elements.size() != 1 || reply->elements[0].text != "unknown";
    results.push_back({"write the keys of " + host.name + (tested ? "" : " (not tested, which needs Redis 7)"),
                       tested ? resultOfExamination(*reply) : Status{}});
    return {};
}

Status RedisInspector::resultOfExamination(const RedisReply& reply) const {
    const std::vector<RedisReply>& words = reply.elements;
    if (words.size() < 2 || words[0].text != "denied")
        return readOutcome(reply, redisExamineScript);
    std::string missing;
    for (std::size_t i = 1; i < words.size(); ++i)
        missing += " " + redisPrintable(words[i].text);
    return serverRefused("the user lacks the permission for a command, its keys or its channel:" + missing);
}

Status RedisInspector::findTag() {
    const std::string key = keyOf("tag:", name_);
    const Result<bool> found = findKey(key, "hash");
    if (!found.ok() || !*found)
        return found.status();
    const Result<RedisReply> reply = ask(tagQuery(name_.c_str()));
    if (!reply.ok())
        return reply.status();
    const Result<std::optional<RedisTag>> tag = readTag(*reply, name_.c_str());
    add(key, {}, !tag.ok() || !*tag);
    return {};
}

Status RedisInspector::findValue() {
    const std::string key = keyOf("value:", name_);
    const Result<bool> found = findKey(key, "hash");
    if (!found.ok() || !*found)
        return found.status();
    const Result<RedisReply> reply = ask(valueQuery(name_.c_str()));
    if (!reply.ok())
        return reply.status();
    Result<std::optional<RedisValue>> value = readValue(*reply, name_.c_str());
    if (value.ok())
        value_ = std::move(*value);
    add(key, value_ ? " = " + value_->value : "", !value_);
    return {};
}

//  The number of changes is only information, so the user may lack the permission for LLEN.
Status RedisInspector::findHistory() {
    const std::string key = keyOf("history:", name_);
    const Result<bool> found = findKey(key, "list");
    if (!found.ok() || !*found)
        return found.status();
    std::string contents;
    if (const Result<RedisReply> length = ask({"LLEN", key}); length.ok() && length->is(Kind::integer))
        contents = ", changes: " + std::to_string(length->integer);
    add(key, contents, false);
    return {};
}

//  If one of the keys belongs to another program, a put of a changed value writes nothing, and a removal deletes
//  nothing.
void RedisInspector::keepAllBesideForeignKeys() {
    std::vector<HeldRecord>& records = holdings_.records;
    if (std::all_of(records.begin(), records.end(), [](const HeldRecord& record) { return record.ours(); }))
        return;
    for (HeldRecord& record : records) {
        if (!record.ours())
            continue;
        record.remains = "a key beside it belongs to another program";
        holdings_.incomplete = true;
    }
}

Status RedisInspector::remove(std::vector<RemovalStep>& steps) {
    std::vector<std::string> texts = textsOfOurs(holdings_);
    if (texts.empty())
        return {};
    until_ = monotonicNow() + operationLimit;
    steps.push_back({std::move(texts), removeShown()});
    return steps.back().status;
}

//  Sends the script with EVAL. EVALSHA would fail at a server that has not stored the script (runScript in
//  backend.cpp), and a script that is rarely used is seldom stored.
Status RedisInspector::removeShown() {
    RedisCommand command{"EVAL", std::string(redisRemoveScript.source), "3"};
    for (const char* kind : {"tag:", "value:", "history:"})
        command.push_back(keyOf(kind, name_));
    command.push_back(value_ ? std::to_string(value_->type) : "");
    command.push_back(value_ ? value_->value : "");
    const Result<RedisReply> reply = route_.ask(route_.groupOf(name_), command, until_);
    if (!reply.ok())
        return reply.status();
    if (reply->elements.size() == 1 && reply->elements[0].text == "changed")
        return serverRefused("the value has changed since it was shown; nothing was deleted");
    Status status = readOutcome(*reply, redisRemoveScript);
    if (reply->is(Kind::error) && status.reason.find("NOPERM") != std::string::npos)
        status.reason += "; to delete keys it needs +del";
    return status;
}

}  // namespace rdbopen
