//  One connection to a Redis server: commands go out in one piece, and the answers come back in their order.
//
//  The back end owns the socket, and libhiredis only takes answers apart: its own reading and writing would raise
//  SIGPIPE, and its memory helpers end the process when there is none.
//
//  Every failure is errorBackendFailed: the connection is of no use after it. An error answer of the server is none.
//
//  Threads: one at a time.
#ifndef RDBAPI_OPEN_REDIS_CONNECTION_H
#define RDBAPI_OPEN_REDIS_CONNECTION_H

#include "net/tcp_stream.h"
#include "redis/reply.h"

namespace rdbopen {

//  A command and its arguments, any bytes.
using RedisCommand = std::vector<std::string>;

class RedisConnection {
public:
    //  Sets what no error of the server may be quoted with from now on, such as the words of a login.
    void conceal(std::vector<std::string> secrets) { secrets_ = std::move(secrets); }

    //  As TcpStream::connect.
    Status connect(const ServerAddress& address, const Waiter& waiter, std::chrono::milliseconds until);

    //  Sends commands and stores one answer for each, errors of the server among them.
    Status exchange(const std::vector<RedisCommand>& commands, std::vector<RedisReply>& replies, const Waiter& waiter,
                    std::chrono::milliseconds until);

    int descriptor() const noexcept { return stream_.descriptor(); }
    void close() noexcept { stream_.close(); }

private:
    //  Receives, without waiting, what the server has sent since the last exchange. Ok when that is nothing.
    Status receiveUnasked();

    //  Takes what there is. wouldWait: there was nothing.
    Status takeBytes(bool& wouldWait);
    Status takeReply(RedisReply& reply, const Waiter& waiter, std::chrono::milliseconds until);

    void markQuotable(RedisReply& reply) const;

    TcpStream stream_;
    RedisReplyParser parser_;
    bool silent_ = true;  // the server has not sent a byte yet
    std::vector<std::string> secrets_;
};

}  // namespace rdbopen

#endif
