//  The keys and the channel of the back end redis for one name, and the commands and answers for them:
//
//      rdb:tag:{NAME}      hash    class, type, importflag, imported_ms
//      rdb:value:{NAME}    hash    time_ms (of the last change), confirmed_ms (of the last put), type, value
//      rdb:history:{NAME}  list    "TIME_MS TYPE VALUE" of each of the newest changes, the newest last
//      rdb:changed:{NAME}  channel; a put publishes each value that has another type or text than the last value
//
//  The braces make a cluster keep all keys of a name at one server. A short list takes much less memory than a stream,
//  whose first entry reserves 4 KB.
//
//  A key of another type belongs to another program, and so does a hash in which a field that the back end reads is
//  missing or invalid. A request that would change such a key fails instead.
#ifndef RDBAPI_OPEN_REDIS_OBJECTS_H
#define RDBAPI_OPEN_REDIS_OBJECTS_H

#include "engine/backend.h"
#include "net/url.h"
#include "redis/connection.h"
#include "redis/scripts.h"

#include <cstdint>
#include <optional>

namespace rdbopen {

//  The options of the url that concern the keys.
struct RedisLimits {
    std::uint32_t expire = 0;                // seconds from the last put or import of a name to its expiry; 0 for never
    std::uint32_t history = defaultHistory;  // maximum number of entries of a history; 0 for none
};

//  The definition of a tag, as stored in its hash.
struct RedisTag {
    std::uint8_t tagclass = 0;
    std::uint8_t type = 0;
    std::uint8_t importflag = 0;
};

struct RedisValue {
    std::uint8_t type = 0;
    std::string value;

    bool equals(const RdbSnapshot& record) const noexcept {
        return type == record.valuetype && value == std::string_view(record.value, record.valuelen);
    }
};

//  Returns the key or channel of name. kind: "tag:", "value:", "history:" or "changed:".
std::string keyOf(std::string_view kind, std::string_view name);

//  Returns errorBadRequest if name is empty or starts with "}", otherwise ok. With such a name, the first braces of the
//  keys would contain nothing. A cluster ignores such braces and could keep the keys at different servers.
Status verifyName(std::string_view name);

//  Returns the status for an error answer to command: errorBackendFailed if redisEndsConnection, else
//  errorServerRefused. Its member `failover` is the result of redisIsWrongServer (refusal.h).
Status refusedByRedis(std::string_view command, const RedisReply& answer);

//  Returns the status for an answer that is not a valid answer to command.
Status notUnderstood(std::string_view command);

//  tagQuery returns the command that queries the tag of name. readTag parses the answer to this command; it returns
//  nothing if none of the queried fields exists.
RedisCommand tagQuery(const char* name);
Result<std::optional<RedisTag>> readTag(const RedisReply& reply, const char* name);

//  Like tagQuery and readTag, for the current value.
RedisCommand valueQuery(const char* name);
Result<std::optional<RedisValue>> readValue(const RedisReply& reply, const char* name);

//  Return what follows the script in EVALSHA and EVAL: the number of keys, the keys and the arguments. importArguments
//  is for redisImportScript, putArguments for redisPutScript and redisClusterPutScript.
RedisCommand importArguments(const RdbTag& tag, const RedisLimits& limits);
RedisCommand putArguments(std::span<const RdbSnapshot> records, const RedisLimits& limits);

//  Like putArguments, for one record. If the tag of the record is missing or not usable, the script creates a usable
//  tag with the type and import flag of `tag`.
RedisCommand refreshArguments(const RdbSnapshot& record, const RdbTag& tag, const RedisLimits& limits);

//  Returns the status for the answer to a script.
Status readOutcome(const RedisReply& reply, const RedisScript& script);

//  Returns the definition of the tag in the answer of a put script that has stored one value. Fails for any other
//  answer.
Result<RedisTag> readStoredTag(const RedisReply& reply, const RedisScript& script);

}  // namespace rdbopen

#endif
