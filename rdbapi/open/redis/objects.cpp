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

//  Removes the next answer, which must be of one kind. Otherwise returns null and the status.
const RedisReply* take(std::span<const RedisReply>& replies, std::string_view command, Kind kind, Status& status) {
    if (replies.empty()) {
        status = notUnderstood(command);
        return nullptr;
    }
    const RedisReply& reply = replies.front();
    replies = replies.subspan(1);
    if (reply.is(kind))
        return &reply;
    status = reply.is(Kind::error) ? refusedByRedis(command, reply) : notUnderstood(command);
    return nullptr;
}

template <class Number>
bool readField(const RedisReply& field, Number& number) {
    const std::string& text = field.text;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return field.is(Kind::text) && error == std::errc() && end == text.data() + text.size();
}

//  Removes the answers to HLEN and HMGET. Sets fields to null if the key does not exist.
Status takeHash(std::span<const RedisReply>& replies, std::size_t count, const std::vector<RedisReply>*& fields) {
    Status status;
    const RedisReply* size = take(replies, "HLEN", Kind::integer, status);
    if (size == nullptr)
        return status;
    const RedisReply* list = take(replies, "HMGET", Kind::array, status);
    if (list == nullptr)
        return status;
    if (list->elements.size() != count)
        return notUnderstood("HMGET");
    fields = size->integer == 0 ? nullptr : &list->elements;
    return {};
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

Status readTime(const RedisReply& reply, std::int64_t& now) {
    if (reply.is(Kind::error))
        return refusedByRedis("TIME", reply);
    std::int64_t seconds = 0;
    std::int64_t microseconds = 0;
    constexpr std::int64_t maxSeconds = 1000000000000;  // far from any overflow
    if (reply.elements.size() != 2 || !readField(reply.elements[0], seconds) ||
        !readField(reply.elements[1], microseconds) || seconds < 0 || seconds > maxSeconds || microseconds < 0 ||
        microseconds > 999999)
        return notUnderstood("TIME");
    now = seconds * 1000 + microseconds / 1000;
    return {};
}

void appendTagQuery(std::vector<RedisCommand>& commands, const char* name) {
    commands.push_back({"HLEN", tagKey(name)});
    commands.push_back({"HMGET", tagKey(name), "class", "type", "importflag"});
}

Status readTag(std::span<const RedisReply>& replies, const char* name, std::optional<RedisTag>& tag) {
    const std::vector<RedisReply>* fields = nullptr;
    if (Status status = takeHash(replies, 3, fields); !status.ok())
        return status;
    tag.reset();
    if (fields == nullptr)
        return {};
    RedisTag read;
    if (!readField((*fields)[0], read.tagclass) || !readField((*fields)[1], read.type) ||
        !readField((*fields)[2], read.importflag))
        return foreign(tagKey(name));
    tag = read;
    return {};
}

void appendValueQuery(std::vector<RedisCommand>& commands, const char* name) {
    commands.push_back({"HLEN", valueKey(name)});
    commands.push_back({"HMGET", valueKey(name), "time_ms", "type", "value"});
}

Status readValue(std::span<const RedisReply>& replies, const char* name, std::optional<RedisValue>& value) {
    const std::vector<RedisReply>* fields = nullptr;
    if (Status status = takeHash(replies, 3, fields); !status.ok())
        return status;
    value.reset();
    if (fields == nullptr)
        return {};
    RedisValue read;
    if (!readField((*fields)[0], read.time) || !readField((*fields)[1], read.type) || !(*fields)[2].is(Kind::text))
        return foreign(valueKey(name));
    read.value = (*fields)[2].text;
    value = std::move(read);
    return {};
}

void appendQuery(std::vector<RedisCommand>& commands, const char* name) {
    appendTagQuery(commands, name);
    appendValueQuery(commands, name);
    commands.push_back({"TYPE", historyKey(name)});
}

Status readHeld(std::span<const RedisReply>& replies, const char* name, RedisHeld& held) {
    if (Status status = readTag(replies, name, held.tag); !status.ok())
        return status;
    if (Status status = readValue(replies, name, held.value); !status.ok())
        return status;
    Status status;
    const RedisReply* type = take(replies, "TYPE", Kind::status, status);
    if (type == nullptr)
        return status;
    return type->text == "none" || type->text == "stream" ? Status{} : foreign(historyKey(name));
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
