#include "tcp_stream.h"

#include "clock.h"

#include <cerrno>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace rdbopen {

namespace {

struct FreeAddresses {
    void operator()(addrinfo* first) const { freeaddrinfo(first); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

std::string systemText(int error) {
    return std::generic_category().message(error);
}

std::string lookUp(const Server& server, Addresses& addresses) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* first = nullptr;
    const int error = getaddrinfo(server.host.c_str(), std::to_string(server.port).c_str(), &hints, &first);
    addresses.reset(first);
    if (error == 0)
        return {};
    return "the name of the server is not known: " +
           std::string(error == EAI_SYSTEM ? systemText(errno) : gai_strerror(error));
}

int countOf(const addrinfo* first) {
    int count = 0;
    for (; first != nullptr; first = first->ai_next)
        ++count;
    return count;
}

//  Requests and answers are small and wait for each other: nothing is gained by collecting bytes.
void setOptions(int descriptor) {
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

//  Returns 0 when descriptor is connected, else the error that the connection ended with.
int pendingError(int descriptor) {
    int error = 0;
    socklen_t length = sizeof error;
    return getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
}

}  // namespace

std::string waitFailure(Waiter::Result result) {
    if (result == Waiter::Result::timedOut)
        return "the server does not answer in time";
    if (result == Waiter::Result::callWaits)
        return "a call waits";
    return result == Waiter::Result::closed ? "the handle was closed" : "cannot wait: " + systemText(errno);
}

//  An address that swallows what is sent to it leaves time for those behind it.
std::string TcpStream::connect(const Server& server, const Waiter& waiter, std::chrono::milliseconds& until) {
    close();
    Addresses addresses;
    const auto before = monotonicNow();
    std::string reason = lookUp(server, addresses);
    until += monotonicNow() - before;
    bool closed = false;
    for (const addrinfo* address = addresses.get(); address != nullptr && !closed; address = address->ai_next) {
        const auto now = monotonicNow();
        reason = connectTo(*address, waiter, now + (until - now) / countOf(address), closed);
        if (reason.empty())
            return {};
        close();
    }
    return reason;
}

//  closed: the handle was closed meanwhile, or a call waits.
std::string TcpStream::connectTo(const addrinfo& address, const Waiter& waiter, std::chrono::milliseconds until,
                                 bool& closed) {
    descriptor_ = socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor_ < 0)
        return "no socket: " + systemText(errno);
    setOptions(descriptor_);
    int error = ::connect(descriptor_, address.ai_addr, address.ai_addrlen) == 0 ? 0 : errno;
    if (error == EINPROGRESS) {
        const Waiter::Result result = waiter.wait(descriptor_, POLLOUT, until);
        closed = result == Waiter::Result::closed || result == Waiter::Result::callWaits;
        if (result != Waiter::Result::ready)
            return waitFailure(result);
        error = pendingError(descriptor_);
    }
    return error == 0 ? std::string() : "cannot be reached: " + systemText(error);
}

std::string TcpStream::send(std::span<const std::uint8_t> bytes, const Waiter& waiter,
                            std::chrono::milliseconds until) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent >= 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(sent));
            continue;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN)
            return "the connection was lost: " + systemText(errno);
        if (const Waiter::Result result = waiter.wait(descriptor_, POLLOUT, until); result != Waiter::Result::ready)
            return waitFailure(result);
    }
    return {};
}

std::string TcpStream::receive(std::span<std::uint8_t> bytes, const Waiter& waiter, std::chrono::milliseconds until) {
    while (!bytes.empty()) {
        const ssize_t taken = recv(descriptor_, bytes.data(), bytes.size(), 0);
        if (taken > 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(taken));
            continue;
        }
        if (taken == 0)
            return "the server closed the connection";
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN)
            return "the connection was lost: " + systemText(errno);
        if (const Waiter::Result result = waiter.wait(descriptor_, POLLIN, until); result != Waiter::Result::ready)
            return waitFailure(result);
    }
    return {};
}

void TcpStream::close() noexcept {
    if (descriptor_ >= 0)
        ::close(descriptor_);
    descriptor_ = -1;
}

}  // namespace rdbopen
