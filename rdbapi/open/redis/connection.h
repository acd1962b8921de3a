//  One connection to a Redis server. All commands of one exchange are sent together, and the answers arrive in the same
//  order.
//
//  This code reads and writes the socket itself and uses libhiredis only to parse answers: libhiredis would raise
//  SIGPIPE, and its connection functions end the process when memory is exhausted.
//
//  Every failure has the code errorBackendFailed. Afterwards no command can be sent before the next connect. An error
//  answer to a command is not a failure.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_REDIS_CONNECTION_H
#define RDBAPI_OPEN_REDIS_CONNECTION_H

#include "net/stream.h"
#include "redis/reply.h"

#include <memory>

namespace rdbopen {

//  A command and its arguments, which may contain any bytes.
using RedisCommand = std::vector<std::string>;

class RedisConnection {
public:
    //  mayMeetTls: the server at the other end may speak TLS although the stream does not.
    RedisConnection(std::unique_ptr<Stream> stream, bool mayMeetTls)
        : stream_(std::move(stream)), mayMeetTls_(mayMeetTls) {}

    //  Sets the secrets, such as user and password, that must not appear in quoted error answers.
    void conceal(std::vector<std::string> secrets) { secrets_ = std::move(secrets); }

    //  Connects like Stream::connect.
    Status connect(const ServerAddress& address, const Waiter& waiter, std::chrono::milliseconds until);

    //  Sends commands and stores one answer for each of them, including error answers.
    Status exchange(const std::vector<RedisCommand>& commands, std::vector<RedisReply>& replies, const Waiter& waiter,
                    std::chrono::milliseconds until);

    //  Sends one command and returns its answer.
    Result<RedisReply> ask(const RedisCommand& command, const Waiter& waiter, std::chrono::milliseconds until);

    int descriptor() const noexcept { return stream_->descriptor(); }
    void close() noexcept { stream_->close(); }

private:
    //  Checks, without waiting, for data that the server has sent without a request. Fails if there is any.
    Status receiveUnasked();

    //  Receives the available bytes. Returns whether there were any.
    Result<bool> takeBytes();
    Status takeReply(RedisReply& reply, const Waiter& waiter, std::chrono::milliseconds until);

    void markQuotable(RedisReply& reply) const;

    const std::unique_ptr<Stream> stream_;
    const bool mayMeetTls_;
    RedisReplyParser parser_;
    bool silent_ = true;  // no byte has been received yet
    std::vector<std::string> secrets_;
};

}  // namespace rdbopen

#endif
