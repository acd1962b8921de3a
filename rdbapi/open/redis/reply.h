//  One answer of a Redis server, and the parser that makes answers of bytes (https://redis.io/docs/reference/protocol-spec,
//  RESP2), which is libhiredis' reader.
//
//  Whatever a server sends, an answer takes bounded memory: see the two limits. What is longer or malformed breaks the
//  parser, and with it the connection.
//
//  Threads: one at a time.
#ifndef RDBAPI_OPEN_REDIS_REPLY_H
#define RDBAPI_OPEN_REDIS_REPLY_H

#include <hiredis/read.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace rdbopen {

//  Bytes of one answer at most, and elements of all its arrays together at most. The longest answer that is ever asked
//  for is that to the transaction of a put of 1000 records: 6000 elements.
inline constexpr std::size_t maxRedisReplySize = 262144;
inline constexpr std::size_t maxRedisElements = 8192;

struct RedisReply {
    enum class Kind { nil, status, error, integer, text, array };

    Kind kind = Kind::nil;
    long long integer = 0;             // of an integer
    std::string text;                  // of a status, an error, a text; any bytes
    std::vector<RedisReply> elements;  // of an array
    std::size_t quotable = 0;          // bytes at the beginning of an error that may be repeated to an operator

    bool is(Kind wanted) const noexcept { return kind == wanted; }
    bool isStatus(std::string_view wanted) const noexcept { return kind == Kind::status && text == wanted; }
};

class RedisReplyParser {
public:
    enum class Result { complete, incomplete, broken };

    //  Begins anew. Returns false when there is no memory; the parser is then broken.
    bool reset();

    //  Takes further bytes of the server.
    void feed(std::string_view bytes);

    //  Stores the next answer when it is complete. Once broken, it stays so until reset.
    Result next(RedisReply& reply);

    //  True when the last byte fed was the last one of an answer taken.
    bool drained() const noexcept;

    //  Says why it is broken. Quotes nothing that was fed.
    const char* reason() const noexcept;

private:
    struct FreeReader {
        void operator()(redisReader* reader) const { redisReaderFree(reader); }
    };

    std::unique_ptr<redisReader, FreeReader> reader_;
    std::size_t fed_ = 0;                          // bytes since the last complete answer
    std::size_t elementsLeft_ = maxRedisElements;  // that the answer may still have
};

}  // namespace rdbopen

#endif
