#include "redis/connection.h"

#include "engine/clock.h"
#include "redis/refusal.h"

#include <utility>

namespace rdbopen {

namespace {

//  Appends command in the wire format of Redis: an array of strings.
void append(std::string& bytes, const RedisCommand& command) {
    bytes += "*" + std::to_string(command.size()) + "\r\n";
    for (const std::string& word : command) {
        bytes += "$" + std::to_string(word.size()) + "\r\n";
        bytes += word;
        bytes += "\r\n";
    }
}

//  Returns whether bytes start with an alert record (RFC 8446 section 5.1), the answer of a TLS server to other
//  protocols.
bool isTlsAlert(std::string_view bytes) {
    return bytes.starts_with("\x15\x03");
}

}  // namespace

Status RedisConnection::connect(const ServerAddress& address, const Waiter& waiter, std::chrono::milliseconds until) {
    if (Status failed = parser_.reset(); !failed.ok())
        return failed;
    silent_ = true;
    return stream_->connect(address, waiter, until);
}

Status RedisConnection::exchange(const std::vector<RedisCommand>& commands, std::vector<RedisReply>& replies,
                                 const Waiter& waiter, std::chrono::milliseconds until) {
    if (Status status = receiveUnasked(); !status.ok())
        return status;
    std::string bytes;
    for (const RedisCommand& command : commands)
        append(bytes, command);
    const auto* first = reinterpret_cast<const std::uint8_t*>(bytes.data());
    if (Status status = stream_->send({first, bytes.size()}, waiter, until); !status.ok())
        return status;
    replies.assign(commands.size(), RedisReply());
    for (RedisReply& reply : replies)
        if (Status status = takeReply(reply, waiter, until); !status.ok())
            return status;
    return parser_.drained() ? Status{} : backendFailed("the server sent more than it was asked for");
}

Result<RedisReply> RedisConnection::ask(const RedisCommand& command, const Waiter& waiter,
                                        std::chrono::milliseconds until) {
    std::vector<RedisReply> replies;
    if (Status status = exchange({command}, replies, waiter, until); !status.ok())
        return status;
    return std::move(replies.front());
}

Status RedisConnection::takeReply(RedisReply& reply, const Waiter& waiter, std::chrono::milliseconds until) {
    for (;;) {
        Result<std::optional<RedisReply>> next = parser_.next();
        if (!next.ok())
            return next.status();
        if (*next) {
            reply = std::move(**next);
            markQuotable(reply);
            return {};
        }
        if (monotonicNow() >= until)  // checked here, because data may arrive without a wait
            return waitFailure(Waiter::Result::timedOut);
        const Result<bool> taken = takeBytes();
        if (!taken.ok())
            return taken.status();
        if (*taken)
            continue;
        if (Status failed = stream_->waitForInput(waiter, until); !failed.ok())
            return failed;
    }
}

void RedisConnection::markQuotable(RedisReply& reply) const {
    if (reply.is(RedisReply::Kind::error))
        reply.quotable = redisQuotable(reply.text, secrets_);
    for (RedisReply& element : reply.elements)
        markQuotable(element);
}

Result<bool> RedisConnection::takeBytes() {
    std::uint8_t bytes[Stream::maxInput];
    const Result<std::size_t> taken = stream_->take(bytes);
    if (!taken.ok() && silent_ && mayMeetTls_ && stream_->endedByServer())
        return backendFailed("the server closed the connection before its first answer; perhaps its port accepts only "
                             "TLS");
    if (!taken.ok())
        return taken.status();
    if (*taken == 0)
        return false;
    const std::string_view text(reinterpret_cast<const char*>(bytes), *taken);
    if (std::exchange(silent_, false) && mayMeetTls_ && isTlsAlert(text))
        return backendFailed("the server speaks TLS only at this port: the scheme for it is rediss");
    parser_.feed(text);
    return true;
}

//  A server may refuse a connection because of its limit of connections or because of the client's address. It then
//  sends an error before any request and closes the connection.
Status RedisConnection::receiveUnasked() {
    const Result<bool> taken = takeBytes();
    if (!taken.ok() || !*taken)
        return taken.status();
    const Result<std::optional<RedisReply>> unasked = parser_.next();
    if (unasked.ok() && *unasked && (*unasked)->is(RedisReply::Kind::error))
        return backendFailed(redisRefusal("connection", (*unasked)->text, 0));
    return backendFailed("the server sent what it was not asked for");
}

}  // namespace rdbopen
