//  The keys of the back end redis for one name, and the commands that read and write them:
//
//      rdb:tag:NAME      hash    class, type, importflag, imported_ms
//      rdb:value:NAME    hash    time_ms, type, value
//      rdb:history:NAME  stream  type, value; one entry for each of the newest redisHistoryLimit puts
//      rdb:changed:NAME  channel on which each value is published if it differs from the previous one
//
//  A key with another type or other fields belongs to another program; a request that needs it is refused, and the key
//  is not changed. If one command of a transaction fails because of a key's type, Redis still executes the others.
//  Therefore all keys are queried before anything is written.
#ifndef RDBAPI_OPEN_REDIS_OBJECTS_H
#define RDBAPI_OPEN_REDIS_OBJECTS_H

#include "engine/backend.h"
#include "redis/connection.h"

#include <cstdint>
#include <optional>

namespace rdbopen {

//  Maximum number of entries in each history; a further put removes the oldest entry.
inline constexpr int redisHistoryLimit = 10000;

//  The definition of a tag, as stored in its hash.
struct RedisTag {
    std::uint8_t tagclass = 0;
    std::uint8_t type = 0;
    std::uint8_t importflag = 0;
};

struct RedisValue {
    std::int64_t time = 0;  // ms since 1970-01-01 UTC on the server's clock
    std::uint8_t type = 0;
    std::string value;

    bool equals(const RdbSnapshot& record) const noexcept {
        return type == record.valuetype && value == std::string_view(record.value, record.valuelen);
    }
};

//  The server's data for one name.
struct RedisHeld {
    std::optional<RedisTag> tag;
    std::optional<RedisValue> value;
};

//  Returns the status for an error answer to command: errorBackendFailed if redisEndsConnection, else
//  errorServerRefused.
Status refusedByRedis(std::string_view command, const RedisReply& answer);

//  Returns the status for an answer that is not valid for this command.
Status notUnderstood(std::string_view command);

//  Reads the answer to TIME: ms since 1970-01-01 UTC.
Result<std::int64_t> readTime(const RedisReply& reply);

//  Append the commands that query only a tag, and remove their answers from the start of replies. readTag returns
//  nothing if the server does not have the tag.
void appendTagQuery(std::vector<RedisCommand>& commands, const char* name);
Result<std::optional<RedisTag>> readTag(std::span<const RedisReply>& replies, const char* name);

//  Like appendTagQuery and readTag, for the current value only.
void appendValueQuery(std::vector<RedisCommand>& commands, const char* name);
Result<std::optional<RedisValue>> readValue(std::span<const RedisReply>& replies, const char* name);

//  Like appendTagQuery and readTag, for all keys of a name. readHeld also fails if the history belongs to another
//  program.
void appendQuery(std::vector<RedisCommand>& commands, const char* name);
Result<RedisHeld> readHeld(std::span<const RedisReply>& replies, const char* name);

//  Appends all keys of name to command, which is WATCH.
void appendKeys(RedisCommand& command, const char* name);

//  Append the commands that write a definition or a value in a transaction. now: ms since 1970-01-01 UTC on the
//  server's clock. expire: seconds until the keys expire; 0: they do not expire. changed: whether the value is
//  published, too.
void appendImport(std::vector<RedisCommand>& commands, const RdbTag& tag, std::int64_t now, std::uint32_t expire);
void appendPut(std::vector<RedisCommand>& commands, const RdbSnapshot& record, std::int64_t now, std::uint32_t expire,
               bool changed);

}  // namespace rdbopen

#endif
