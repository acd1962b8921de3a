#include "net/tcp_stream.h"

#include <cerrno>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace rdbopen {

namespace {

//  Sets TCP_NODELAY. Without it, Nagle's algorithm could hold back the end of a request until the server has confirmed
//  the bytes before. A Unix socket has no such option and delays nothing.
void setOptions(int descriptor) {
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

//  Returns how the connection attempt of descriptor ended.
Status connectResult(int descriptor) {
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
        return systemFailure(errno);
    return error == 0 ? Status{} : systemFailure(error);
}

}  // namespace

Status TcpStream::connect(const ServerAddress& address, const Waiter& waiter, std::chrono::milliseconds until) {
    close();
    Status status = open(address, waiter, until);
    if (!status.ok())
        close();
    return status;
}

Status TcpStream::open(const ServerAddress& address, const Waiter& waiter, std::chrono::milliseconds until) {
    descriptor_ = socket(address.bytes.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor_ < 0)
        return failedTo("no socket", systemFailure(errno));
    setOptions(descriptor_);
    const auto* const place = reinterpret_cast<const sockaddr*>(&address.bytes);
    if (::connect(descriptor_, place, address.length) == 0)
        return {};
    if (errno != EINPROGRESS)
        return failedTo("cannot be reached", systemFailure(errno));
    if (Status failed = waitUntilReady(descriptor_, POLLOUT, waiter, until); !failed.ok())
        return failed;
    Status status = connectResult(descriptor_);
    return status.ok() ? status : failedTo("cannot be reached", std::move(status));
}

Status TcpStream::send(std::span<const std::uint8_t> bytes, const Waiter& waiter, std::chrono::milliseconds until) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent >= 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(sent));
            continue;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN)
            return failedTo("the connection was lost", systemFailure(errno));
        if (Status failed = waitUntilReady(descriptor_, POLLOUT, waiter, until); !failed.ok())
            return failed;
    }
    return {};
}

Result<std::size_t> TcpStream::take(std::span<std::uint8_t> bytes) {
    const ssize_t taken = recv(descriptor_, bytes.data(), bytes.size(), 0);
    ended_ = taken == 0 || (taken < 0 && errno == ECONNRESET);
    if (taken > 0)
        return static_cast<std::size_t>(taken);
    if (taken == 0)
        return backendFailed("the server closed the connection");
    if (errno != EAGAIN && errno != EINTR)
        return failedTo("the connection was lost", systemFailure(errno));
    return std::size_t{0};
}

Status TcpStream::waitForInput(const Waiter& waiter, std::chrono::milliseconds until) {
    return waitUntilReady(descriptor_, POLLIN, waiter, until);
}

Status TcpStream::receive(std::span<std::uint8_t> bytes, const Waiter& waiter, std::chrono::milliseconds until) {
    while (!bytes.empty()) {
        const Result<std::size_t> taken = take(bytes);
        if (!taken.ok())
            return taken.status();
        bytes = bytes.subspan(*taken);
        if (*taken > 0)
            continue;
        if (Status failed = waitForInput(waiter, until); !failed.ok())
            return failed;
    }
    return {};
}

bool TcpStream::hasUnconfirmed() const noexcept {
    int bytes = 0;
    return ioctl(descriptor_, SIOCOUTQ, &bytes) == 0 && bytes > 0;
}

//  With a linger time of 0, close(2) resets the connection and discards the bytes that are not confirmed. A Unix socket
//  ignores the linger time.
void TcpStream::close() noexcept {
    constexpr linger none{1, 0};
    if (hasUnconfirmed())
        setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    finish();
}

void TcpStream::finish() noexcept {
    if (descriptor_ >= 0)
        ::close(descriptor_);
    descriptor_ = -1;
}

}  // namespace rdbopen
