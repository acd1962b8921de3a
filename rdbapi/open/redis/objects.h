//  What the back end redis keeps for one name, and the commands that read and write it:
//
//      rdb:tag:NAME      hash    class, type, importflag, imported_ms
//      rdb:value:NAME    hash    time_ms, type, value
//      rdb:history:NAME  stream  type, value; one entry for each put, the newest redisHistoryLimit
//      rdb:changed:NAME  channel that each value is published on when it differs from the one before it
//
//  A key of another type or with other fields is somebody else's: it is refused and stays as it is. Redis carries out the
//  rest of a transaction in which one command meets a key of another type, so all keys are queried before.
#ifndef RDBAPI_OPEN_REDIS_OBJECTS_H
#define RDBAPI_OPEN_REDIS_OBJECTS_H

#include "engine/backend.h"
#include "redis/connection.h"

#include <cstdint>
#include <optional>

namespace rdbopen {

//  Entries kept in each history; a put beyond them removes the oldest.
inline constexpr int redisHistoryLimit = 10000;

//  The definition that a tag's hash holds.
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

//  What the server holds under one name.
struct RedisHeld {
    std::optional<RedisTag> tag;
    std::optional<RedisValue> value;
};

//  Takes an error answer to command: the connection goes on, except after redisEndsConnection.
Status refusedByRedis(std::string_view command, const RedisReply& answer);

//  The status of an answer that no Redis server gives to command.
Status notUnderstood(std::string_view command);

//  Takes the answer to TIME. now: ms since 1970-01-01 UTC.
Status readTime(const RedisReply& reply, std::int64_t& now);

//  Append the commands that query a tag alone, and take their answers from the front of replies.
void appendTagQuery(std::vector<RedisCommand>& commands, const char* name);
Status readTag(std::span<const RedisReply>& replies, const char* name, std::optional<RedisTag>& tag);

//  The same for the current value alone.
void appendValueQuery(std::vector<RedisCommand>& commands, const char* name);
Status readValue(std::span<const RedisReply>& replies, const char* name, std::optional<RedisValue>& value);

//  The same for everything under a name; fails also when the history is somebody else's.
void appendQuery(std::vector<RedisCommand>& commands, const char* name);
Status readHeld(std::span<const RedisReply>& replies, const char* name, RedisHeld& held);

//  Appends the keys of name, for WATCH.
void appendKeys(RedisCommand& command, const char* name);

//  Append what writes a definition or a value into a transaction. now: as in RedisValue. expire: seconds after which
//  the keys vanish, 0 for never. changed: to be published.
void appendImport(std::vector<RedisCommand>& commands, const RdbTag& tag, std::int64_t now, std::uint32_t expire);
void appendPut(std::vector<RedisCommand>& commands, const RdbSnapshot& record, std::int64_t now, std::uint32_t expire,
               bool changed);

}  // namespace rdbopen

#endif
