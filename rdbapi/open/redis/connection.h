//  One connection to a Redis server: commands are sent in one piece, and the answers arrive in the same order.
//
//  The back end owns the socket, and libhiredis only parses answers: its own reading and writing would raise SIGPIPE,
//  and its memory functions end the process when memory is exhausted.
//
//  Every failure is errorBackendFailed: the connection cannot be used afterwards. An error answer of the server is no
//  failure.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_REDIS_CONNECTION_H
#define RDBAPI_OPEN_REDIS_CONNECTION_H

#include "net/tcp_stream.h"
#include "redis/reply.h"

namespace rdbopen {

//  A command and its arguments, which may contain any bytes.
using RedisCommand = std::vector<std::string>;

class RedisConnection {
public:
    //  Sets the secrets that must not appear in quoted errors of the server, such as the login.
    void conceal(std::vector<std::string> secrets) { secrets_ = std::move(secrets); }

    //  Connects like TcpStream::connect.
    Status connect(const ServerAddress& address, const Waiter& waiter, std::chrono::milliseconds until);

    //  Sends commands and stores one answer for each, including errors of the server.
    Status exchange(const std::vector<RedisCommand>& commands, std::vector<RedisReply>& replies, const Waiter& waiter,
                    std::chrono::milliseconds until);

    int descriptor() const noexcept { return stream_.descriptor(); }
    void close() noexcept { stream_.close(); }

private:
    //  Receives, without waiting, data that the server has sent since the last exchange. Ok if there is none.
    Status receiveUnasked();

    //  Receives the available bytes. Returns whether there were any.
    Result<bool> takeBytes();
    Status takeReply(RedisReply& reply, const Waiter& waiter, std::chrono::milliseconds until);

    void markQuotable(RedisReply& reply) const;

    TcpStream stream_;
    RedisReplyParser parser_;
    bool silent_ = true;  // the server has not sent a byte yet
    std::vector<std::string> secrets_;
};

}  // namespace rdbopen

#endif
