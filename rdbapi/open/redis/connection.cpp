#include "redis/connection.h"

#include "engine/clock.h"
#include "redis/refusal.h"

#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <utility>

namespace rdbopen {

namespace {

//  The protocol's form of a request: an array of texts.
void append(std::string& bytes, const RedisCommand& command) {
    bytes += "*" + std::to_string(command.size()) + "\r\n";
    for (const std::string& word : command) {
        bytes += "$" + std::to_string(word.size()) + "\r\n";
        bytes += word;
        bytes += "\r\n";
    }
}

//  The beginning of an alert record (RFC 8446 section 5.1), with which such a server answers to anything but TLS.
bool isTlsAlert(std::string_view bytes) {
    return bytes.starts_with("\x15\x03");
}

}  // namespace

std::string RedisConnection::connect(const ServerAddress& address, const Waiter& waiter,
                                     std::chrono::milliseconds until) {
    if (!parser_.reset())
        return parser_.reason();
    silent_ = true;
    return stream_.connect(address, waiter, until);
}

std::string RedisConnection::exchange(const std::vector<RedisCommand>& commands, std::vector<RedisReply>& replies,
                                      const Waiter& waiter, std::chrono::milliseconds until) {
    if (std::string reason = checkQuiet(); !reason.empty())
        return reason;
    std::string bytes;
    for (const RedisCommand& command : commands)
        append(bytes, command);
    const auto* first = reinterpret_cast<const std::uint8_t*>(bytes.data());
    if (std::string reason = stream_.send({first, bytes.size()}, waiter, until); !reason.empty())
        return reason;
    replies.assign(commands.size(), RedisReply());
    for (RedisReply& reply : replies)
        if (std::string reason = takeReply(reply, waiter, until); !reason.empty())
            return reason;
    return parser_.drained() ? std::string() : "the server sent more than it was asked for";
}

std::string RedisConnection::takeReply(RedisReply& reply, const Waiter& waiter, std::chrono::milliseconds until) {
    for (;;) {
        const RedisReplyParser::Result result = parser_.next(reply);
        if (result == RedisReplyParser::Result::complete)
            markQuotable(reply);
        if (result != RedisReplyParser::Result::incomplete)
            return result == RedisReplyParser::Result::complete ? std::string() : parser_.reason();
        if (monotonicNow() >= until)  // also when the server never pauses
            return waitFailure(Waiter::Result::timedOut);
        bool wouldWait = false;
        if (std::string reason = takeBytes(wouldWait); !reason.empty())
            return reason;
        if (!wouldWait)
            continue;
        if (const Waiter::Result waited = waiter.wait(descriptor(), POLLIN, until); waited != Waiter::Result::ready)
            return waitFailure(waited);
    }
}

void RedisConnection::markQuotable(RedisReply& reply) const {
    if (reply.is(RedisReply::Kind::error))
        reply.quotable = redisQuotable(reply.text, secrets_);
    for (RedisReply& element : reply.elements)
        markQuotable(element);
}

std::string RedisConnection::takeBytes(bool& wouldWait) {
    char bytes[16384];
    const ssize_t taken = recv(descriptor(), bytes, sizeof bytes, 0);
    const bool reset = taken < 0 && errno == ECONNRESET;
    if (silent_ && (taken == 0 || reset))
        return "the server closed the connection before its first answer, as servers do that speak TLS only at their "
               "port";
    if (taken == 0)
        return "the server closed the connection";
    if (taken > 0) {
        if (std::exchange(silent_, false) && isTlsAlert({bytes, static_cast<std::size_t>(taken)}))
            return "the server speaks TLS only at this port, which this back end does not: it needs a tunnel or a "
                   "plain port";
        parser_.feed({bytes, static_cast<std::size_t>(taken)});
        return {};
    }
    wouldWait = errno == EAGAIN || errno == EINTR;
    return wouldWait ? std::string() : "the connection was lost: " + std::generic_category().message(errno);
}

//  A server that takes no more connections, or none of this host, says so unasked and closes.
std::string RedisConnection::checkQuiet() {
    bool wouldWait = false;
    if (std::string reason = takeBytes(wouldWait); wouldWait || !reason.empty())
        return reason;
    RedisReply unasked;
    if (parser_.next(unasked) == RedisReplyParser::Result::complete && unasked.is(RedisReply::Kind::error))
        return redisRefusal("connection", unasked.text, 0);
    return "the server sent what it was not asked for";
}

}  // namespace rdbopen
