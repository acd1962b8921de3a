//  One answer of a Redis server, and the parser of answers (https://redis.io/docs/reference/protocol-spec, RESP2),
//  which uses libhiredis' reader.
//
//  The two limits below bound the memory of an answer, whatever a server sends. After an answer that exceeds a limit or
//  is malformed, the parser is broken until reset.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_REDIS_REPLY_H
#define RDBAPI_OPEN_REDIS_REPLY_H

#include "engine/status.h"

#include <hiredis/read.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rdbopen {

//  Maximum number of bytes of one answer, and of elements of all its arrays together. The longest answer that is needed
//  is the answer of a large cluster to CLUSTER SLOTS. A value has at most 999 bytes.
inline constexpr std::size_t maxRedisReplySize = 262144;
inline constexpr std::size_t maxRedisElements = 8192;

struct RedisReply {
    enum class Kind { nil, status, error, integer, text, array };

    Kind kind = Kind::nil;
    long long integer = 0;             // value of an integer
    std::string text;                  // bytes of a status, an error or a text
    std::vector<RedisReply> elements;  // elements of an array
    std::size_t quotable = 0;          // number of leading bytes of an error that may be shown to an operator

    bool is(Kind expected) const noexcept { return kind == expected; }
    bool isStatus(std::string_view expected) const noexcept { return kind == Kind::status && text == expected; }
};

class RedisReplyParser {
public:
    //  Discards all bytes and starts again. Fails when memory is exhausted; the parser is then broken.
    Status reset();

    //  Adds bytes received from the server.
    void feed(std::string_view bytes);

    //  Returns the next answer, or nothing while this answer is incomplete. Fails when the parser is broken; the parser
    //  stays broken until reset. The reason contains no received bytes.
    Result<std::optional<RedisReply>> next();

    //  Returns whether no bytes remain after the last answer.
    bool drained() const noexcept;

private:
    Status fault() const;

    struct FreeReader {
        void operator()(redisReader* reader) const { redisReaderFree(reader); }
    };

    std::unique_ptr<redisReader, FreeReader> reader_;
    std::size_t fed_ = 0;                          // bytes since the last complete answer
    std::size_t elementsLeft_ = maxRedisElements;  // number of further elements that the answer may have
};

}  // namespace rdbopen

#endif
