#include "redis/objects.h"

#include "redis/refusal.h"

#include <charconv>

namespace rdbopen {

namespace {

using Kind = RedisReply::Kind;

std::string tagKey(const char* name) {
    return std::string("rdb:tag:") + name;
}

std::string valueKey(const char* name) {
    return std::string("rdb:value:") + name;
}

std::string historyKey(const char* name) {
    return std::string("rdb:history:") + name;
}

Status foreign(const std::string& key) {
    return serverRefused(key + " is somebody else's and stays as it is");
}

//  Removes the next answer and returns it. Fails if it is not of this kind.
Result<const RedisReply*> take(std::span<const RedisReply>& replies, std::string_view command, Kind kind) {
    if (replies.empty())
        return notUnderstood(command);
    const RedisReply& reply = replies.front();
    replies = replies.subspan(1);
    if (reply.is(kind))
        return &reply;
    return reply.is(Kind::error) ? refusedByRedis(command, reply) : notUnderstood(command);
}

//  Returns the number in the text of field, or nothing if the text is not a number.
template <class Number>
std::optional<Number> numberIn(const RedisReply& field) {
    Number number = 0;
    const std::string& text = field.text;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = field.is(Kind::text) && error == std::errc() && end == text.data() + text.size();
    return isNumber ? std::optional(number) : std::nullopt;
}

//  Removes the answers to HLEN and HMGET. Returns the answer to HMGET, or null if the key does not exist.
Result<const RedisReply*> takeHash(std::span<const RedisReply>& replies, std::size_t count) {
    const Result<const RedisReply*> size = take(replies, "HLEN", Kind::integer);
    if (!size.ok())
        return size.status();
    const Result<const RedisReply*> fields = take(replies, "HMGET", Kind::array);
    if (!fields.ok())
        return fields.status();
    if ((*fields)->elements.size() != count)
        return notUnderstood("HMGET");
    return (*size)->integer == 0 ? nullptr : *fields;
}

void appendExpiry(std::vector<RedisCommand>& commands, const char* name, std::uint32_t expire) {
    if (expire == 0)
        return;
    for (const std::string& key : {tagKey(name), valueKey(name), historyKey(name)})
        commands.push_back({"EXPIRE", key, std::to_string(expire)});
}

}  // namespace

Status notUnderstood(std::string_view command) {
    return backendFailed("the server's answer to " + std::string(command) + " is not understood");
}

Status refusedByRedis(std::string_view command, const RedisReply& answer) {
    std::string reason = redisRefusal(command, answer.text, answer.quotable);
    const int code = redisEndsConnection(answer.text) ? errorBackendFailed : errorServerRefused;
    return {code, std::move(reason), redisIsWrongServer(answer.text)};
}

Result<std::int64_t> readTime(const RedisReply& reply) {
    if (reply.is(Kind::error))
        return refusedByRedis("TIME", reply);
    constexpr std::int64_t maxSeconds = 1000000000000;  // large enough for any date, and prevents an overflow
    if (reply.elements.size() != 2)
        return notUnderstood("TIME");
    const std::int64_t seconds = numberIn<std::int64_t>(reply.elements[0]).value_or(-1);
    const std::int64_t microseconds = numberIn<std::int64_t>(reply.elements[1]).value_or(-1);
    if (seconds < 0 || seconds > maxSeconds || microseconds < 0 || microseconds > 999999)
        return notUnderstood("TIME");
    return seconds * 1000 + microseconds / 1000;
}

void appendTagQuery(std::vector<RedisCommand>& commands, const char* name) {
    commands.push_back({"HLEN", tagKey(name)});
    commands.push_back({"HMGET", tagKey(name), "class", "type", "importflag"});
}

Result<std::optional<RedisTag>> readTag(std::span<const RedisReply>& replies, const char* name) {
    const Result<const RedisReply*> hash = takeHash(replies, 3);
    if (!hash.ok())
        return hash.status();
    if (*hash == nullptr)
        return std::optional<RedisTag>();
    const std::vector<RedisReply>& fields = (*hash)->elements;
    const auto tagclass = numberIn<std::uint8_t>(fields[0]);
    const auto type = numberIn<std::uint8_t>(fields[1]);
    const auto importflag = numberIn<std::uint8_t>(fields[2]);
    if (!tagclass || !type || !importflag)
        return foreign(tagKey(name));
    return std::optional(RedisTag{*tagclass, *type, *importflag});
}

void appendValueQuery(std::vector<RedisCommand>& commands, const char* name) {
    commands.push_back({"HLEN", valueKey(name)});
    commands.push_back({"HMGET", valueKey(name), "time_ms", "type", "value"});
}

Result<std::optional<RedisValue>> readValue(std::span<const RedisReply>& replies, const char* name) {
    const Result<const RedisReply*> hash = takeHash(replies, 3);
    if (!hash.ok())
        return hash.status();
    if (*hash == nullptr)
        return std::optional<RedisValue>();
    const std::vector<RedisReply>& fields = (*hash)->elements;
    const auto time = numberIn<std::int64_t>(fields[0]);
    const auto type = numberIn<std::uint8_t>(fields[1]);
    if (!time || !type || !fields[2].is(Kind::text))
        return foreign(valueKey(name));
    return std::optional(RedisValue{*time, *type, fields[2].text});
}

void appendQuery(std::vector<RedisCommand>& commands, const char* name) {
    appendTagQuery(commands, name);
    appendValueQuery(commands, name);
    commands.push_back({"TYPE", historyKey(name)});
}

Result<RedisHeld> readHeld(std::span<const RedisReply>& replies, const char* name) {
    Result<std::optional<RedisTag>> tag = readTag(replies, name);
    if (!tag.ok())
        return tag.status();
    Result<std::optional<RedisValue>> value = readValue(replies, name);
    if (!value.ok())
        return value.status();
    const Result<const RedisReply*> type = take(replies, "TYPE", Kind::status);
    if (!type.ok())
        return type.status();
    if ((*type)->text != "none" && (*type)->text != "stream")
        return foreign(historyKey(name));
    return RedisHeld{*tag, std::move(*value)};
}

void appendKeys(RedisCommand& command, const char* name) {
    for (std::string& key : std::vector<std::string>{tagKey(name), valueKey(name), historyKey(name)})
        command.push_back(std::move(key));
}

void appendImport(std::vector<RedisCommand>& commands, const RdbTag& tag, std::int64_t now, std::uint32_t expire) {
    commands.push_back({"HSET", tagKey(tag.name), "class", std::to_string(tag.tagclass), "type",
                        std::to_string(tag.valuetype), "importflag", std::to_string(tag.importflag), "imported_ms",
                        std::to_string(now)});
    appendExpiry(commands, tag.name, expire);
}

void appendPut(std::vector<RedisCommand>& commands, const RdbSnapshot& record, std::int64_t now, std::uint32_t expire,
               bool changed) {
    const std::string type = std::to_string(record.valuetype);
    const std::string value(record.value, record.valuelen);
    commands.push_back({"HSET", valueKey(record.name), "time_ms", std::to_string(now), "type", type, "value", value});
    commands.push_back({"XADD", historyKey(record.name), "MAXLEN", std::to_string(redisHistoryLimit), "*", "type", type,
                        "value", value});
    appendExpiry(commands, record.name, expire);
    if (changed)
        commands.push_back({"PUBLISH", std::string("rdb:changed:") + record.name, value});
}

}  // namespace rdbopen
