#include "redis/objects.h"

#include "redis/refusal.h"

#include <charconv>

namespace rdbopen {

namespace {

using Kind = RedisReply::Kind;

constexpr std::size_t storedTagSize = 4;  // elements of an answer that contains a tag

std::string tagKey(const char* name) {
    return keyOf("tag:", name);
}

std::string valueKey(const char* name) {
    return keyOf("value:", name);
}

void appendKeys(RedisCommand& command, const char* name) {
    for (const char* kind : {"tag:", "value:", "history:"})
        command.push_back(keyOf(kind, name));
}

Status foreign(const std::string& key) {
    return serverRefused(key + " is somebody else's and stays as it is");
}

//  Returns the number in the text of field, or nothing if the text is not a number in the range of Number.
template <class Number>
std::optional<Number> numberIn(const RedisReply& field) {
    Number number = 0;
    const std::string& text = field.text;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = field.is(Kind::text) && error == std::errc() && end == text.data() + text.size();
    return isNumber ? std::optional(number) : std::nullopt;
}

//  Returns the tag in fields: class, type and import flag. Returns nothing if a field is not a number from 0 to 255.
std::optional<RedisTag> definitionIn(std::span<const RedisReply, 3> fields) {
    const auto tagclass = numberIn<std::uint8_t>(fields[0]);
    const auto type = numberIn<std::uint8_t>(fields[1]);
    const auto importflag = numberIn<std::uint8_t>(fields[2]);
    return tagclass && type && importflag ? std::optional(RedisTag{*tagclass, *type, *importflag}) : std::nullopt;
}

//  Returns the fields in the answer to HMGET, or null if no field exists. So a hash of another program may be treated
//  as missing; the scripts refuse to write to such a hash.
Result<const std::vector<RedisReply>*> readFields(const RedisReply& reply, std::size_t count) {
    if (reply.is(Kind::error))
        return refusedByRedis("HMGET", reply);
    if (!reply.is(Kind::array) || reply.elements.size() != count)
        return notUnderstood("HMGET");
    for (const RedisReply& field : reply.elements)
        if (!field.is(Kind::nil))
            return &reply.elements;
    return nullptr;
}

}  // namespace

std::string keyOf(std::string_view kind, std::string_view name) {
    return std::string("rdb:").append(kind).append("{").append(name).append("}");
}

Status verifyName(std::string_view name) {
    if (!name.empty() && name.front() != '}')
        return {};
    return {errorBadRequest, "the name " + std::string(name) + " cannot be used: it is empty or starts with }"};
}

Status notUnderstood(std::string_view command) {
    return backendFailed("the server's answer to " + std::string(command) + " is not understood");
}

Status refusedByRedis(std::string_view command, const RedisReply& answer) {
    std::string reason = redisRefusal(command, answer.text, answer.quotable);
    const int code = redisEndsConnection(answer.text) ? errorBackendFailed : errorServerRefused;
    return {code, std::move(reason), redisIsWrongServer(answer.text)};
}

RedisCommand tagQuery(const char* name) {
    return {"HMGET", tagKey(name), "class", "type", "importflag"};
}

Result<std::optional<RedisTag>> readTag(const RedisReply& reply, const char* name) {
    const Result<const std::vector<RedisReply>*> fields = readFields(reply, 3);
    if (!fields.ok())
        return fields.status();
    if (*fields == nullptr)
        return std::optional<RedisTag>();
    std::optional<RedisTag> tag = definitionIn(std::span(**fields).first<3>());
    return tag ? tag : Result<std::optional<RedisTag>>(foreign(tagKey(name)));
}

RedisCommand valueQuery(const char* name) {
    return {"HMGET", valueKey(name), "time_ms", "type", "value"};
}

Result<std::optional<RedisValue>> readValue(const RedisReply& reply, const char* name) {
    const Result<const std::vector<RedisReply>*> fields = readFields(reply, 3);
    if (!fields.ok())
        return fields.status();
    if (*fields == nullptr)
        return std::optional<RedisValue>();
    const auto time = numberIn<std::uint64_t>((**fields)[0]);
    const auto type = numberIn<std::uint8_t>((**fields)[1]);
    if (!time || !type || !(**fields)[2].is(Kind::text))
        return foreign(valueKey(name));
    return std::optional(RedisValue{*type, (**fields)[2].text});
}

RedisCommand importArguments(const RdbTag& tag, const RedisLimits& limits) {
    RedisCommand arguments{"3"};
    appendKeys(arguments, tag.name);
    arguments.push_back(std::to_string(limits.expire));
    for (const std::uint8_t field : {tag.tagclass, tag.valuetype, tag.importflag})
        arguments.push_back(std::to_string(field));
    return arguments;
}

RedisCommand putArguments(std::span<const RdbSnapshot> records, const RedisLimits& limits) {
    RedisCommand arguments{std::to_string(3 * records.size())};
    for (const RdbSnapshot& record : records)
        appendKeys(arguments, record.name);
    arguments.push_back(std::to_string(limits.expire));
    arguments.push_back(std::to_string(limits.history));
    arguments.push_back(std::to_string(RDB_TAG_CLASS_USABLE));
    for (const RdbSnapshot& record : records) {
        arguments.push_back(std::to_string(record.valuetype));
        arguments.emplace_back(record.value, record.valuelen);
        arguments.push_back(keyOf("changed:", record.name));
    }
    return arguments;
}

RedisCommand refreshArguments(const RdbSnapshot& record, const RdbTag& tag, const RedisLimits& limits) {
    RedisCommand arguments = putArguments({&record, 1}, limits);
    for (const std::uint8_t field : {tag.valuetype, tag.importflag})
        arguments.push_back(std::to_string(field));
    return arguments;
}

Status readOutcome(const RedisReply& reply, const RedisScript& script) {
    if (reply.is(Kind::error))
        return refusedByRedis(script.operation, reply);
    const auto isWord = [&](std::size_t i, std::string_view word) {
        return reply.elements[i].is(Kind::text) && reply.elements[i].text == word;
    };
    const bool withTag = reply.elements.size() == storedTagSize;
    if ((withTag || reply.elements.size() == 1) && (isWord(0, "done") || isWord(0, "confirmed")))
        return {};
    if (reply.elements.size() == 1) {
        if (isWord(0, "no-tag"))
            return {errorNoSuchTag, {}};
        if (isWord(0, "not-usable"))
            return {errorTagNotUsable, {}};
    }
    //  The key should be a key of the request, but a server may send any bytes.
    if (reply.elements.size() == 2 && isWord(0, "foreign") && reply.elements[1].is(Kind::text))
        return foreign(redisPrintable(reply.elements[1].text));
    return notUnderstood(script.operation);
}

Result<RedisTag> readStoredTag(const RedisReply& reply, const RedisScript& script) {
    if (Status failed = readOutcome(reply, script); !failed.ok())
        return failed;
    if (reply.elements.size() != storedTagSize)
        return notUnderstood(script.operation);
    const std::optional<RedisTag> tag = definitionIn(std::span(reply.elements).last<3>());
    return tag ? Result<RedisTag>(*tag) : notUnderstood(script.operation);
}

}  // namespace rdbopen
