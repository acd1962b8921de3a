//  The TCP connection, against servers of the test on loopback, and with failing system calls.
#include "tcp_stream.h"

#include "open_support.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

//  errno with which the next call fails; 0 for none. A count of bytes that a call may carry at most.
thread_local int failSocket, failConnect, failOption, failSend, failReceive, failPoll;
thread_local std::size_t mostBytes = SIZE_MAX;
thread_local bool expirePoll = false;
thread_local int clockAhead = 0, lookUpTime = 0;  // s
thread_local int addresses = 1;                   // of the server, each the same

bool fails(int& error) {
    if (error == 0)
        return false;
    errno = std::exchange(error, 0);
    return true;
}

}  // namespace

extern "C" {
int __real_socket(int, int, int);
int __wrap_socket(int family, int type, int protocol) {
    return fails(failSocket) ? -1 : __real_socket(family, type, protocol);
}
int __real_connect(int, const sockaddr*, socklen_t);
int __wrap_connect(int descriptor, const sockaddr* address, socklen_t length) {
    return fails(failConnect) ? -1 : __real_connect(descriptor, address, length);
}
int __real_getsockopt(int, int, int, void*, socklen_t*);
int __wrap_getsockopt(int descriptor, int level, int option, void* value, socklen_t* length) {
    return fails(failOption) ? -1 : __real_getsockopt(descriptor, level, option, value, length);
}
ssize_t __real_send(int, const void*, std::size_t, int);
ssize_t __wrap_send(int descriptor, const void* bytes, std::size_t count, int flags) {
    return fails(failSend) ? -1 : __real_send(descriptor, bytes, std::min(count, mostBytes), flags);
}
ssize_t __real_recv(int, void*, std::size_t, int);
ssize_t __wrap_recv(int descriptor, void* bytes, std::size_t count, int flags) {
    return fails(failReceive) ? -1 : __real_recv(descriptor, bytes, std::min(count, mostBytes), flags);
}
int __real_getaddrinfo(const char*, const char*, const addrinfo*, addrinfo**);
int __wrap_getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** first) {
    clockAhead += lookUpTime;
    addrinfo** end = first;
    for (int left = addresses; left > 0; --left, end = &(*end)->ai_next)
        if (const int error = __real_getaddrinfo(name, service, hints, end); error != 0)
            return error;
    return 0;
}
int __real_clock_gettime(clockid_t, timespec*);
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    const int result = __real_clock_gettime(clock, now);
    now->tv_sec += clockAhead;
    return result;
}
int __real_poll(pollfd*, nfds_t, int);
int __wrap_poll(pollfd* descriptors, nfds_t count, int timeout) {
    if (fails(failPoll))
        return -1;
    return expirePoll ? 0 : __real_poll(descriptors, count, timeout);
}
}

namespace {

using namespace opentest;
using namespace rdbopen;

//  A listening socket on ::1 and, after accept, the server's side of the connection.
class Peer {
public:
    Peer() : listener_(__real_socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_addr = in6addr_loopback;
        bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        listen(listener_, 1);
        socklen_t length = sizeof address;
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin6_port);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer() {
        hangUp();
        close(listener_);
    }
    Server server() const { return {"::1", port_}; }
    void take() { descriptor_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC); }
    void say(std::string_view text) { EXPECT_EQ(write(descriptor_, text.data(), text.size()), ssize_t(text.size())); }
    std::string hear(std::size_t count) {
        std::string text(count, '\0');
        for (std::size_t filled = 0; filled < count;) {
            const ssize_t taken = read(descriptor_, text.data() + filled, count - filled);
            if (taken <= 0)
                return "";
            filled += static_cast<std::size_t>(taken);
        }
        return text;
    }
    void hangUp() {
        if (descriptor_ >= 0)
            close(descriptor_);
        descriptor_ = -1;
    }

private:
    int listener_;
    int descriptor_ = -1;
    std::uint16_t port_ = 0;
};

std::span<const std::uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::chrono::milliseconds soon() {
    return monotonicNow() + std::chrono::seconds(30);
}

class OpenTcpStream : public testing::Test {
protected:
    ~OpenTcpStream() override {
        failSocket = failConnect = failOption = failSend = failReceive = failPoll = 0;
        mostBytes = SIZE_MAX;
        expirePoll = false;
        clockAhead = lookUpTime = 0;
        addresses = 1;
    }
    std::string connect(const Waiter& waiter = plainWaiter) {
        until = soon();
        std::string reason = stream.connect(peer.server(), waiter, until);
        if (reason.empty())
            peer.take();
        return reason;
    }
    std::string receive(std::size_t count, std::string& text) {
        std::vector<std::uint8_t> bytes(count);
        std::string reason = stream.receive(bytes, plainWaiter, soon());
        text.assign(bytes.begin(), bytes.end());
        return reason;
    }

    Peer peer;
    TcpStream stream;
    std::chrono::milliseconds until{};
};

//  Waits for a connection: the first ones end as the test says, the others as they do.
class EndingWaiter : public Waiter {
public:
    EndingWaiter(Result result, std::size_t count) : result_(result), count_(count) {}
    Result wait(int descriptor, short events, std::chrono::milliseconds until) const noexcept override {
        limits.push_back(std::chrono::round<std::chrono::seconds>(until - monotonicNow()).count());
        return limits.size() <= count_ ? result_ : plainWaiter.wait(descriptor, events, until);
    }
    mutable std::vector<std::int64_t> limits;  // s

private:
    Result result_;
    std::size_t count_;
};

TEST_F(OpenTcpStream, BytesGoBothWays) {
    ASSERT_EQ(connect(), "");
    EXPECT_EQ(stream.send(bytesOf("hello"), plainWaiter, soon()), "");
    EXPECT_EQ(peer.hear(5), "hello");
    peer.say("world");
    std::string text;
    EXPECT_EQ(receive(5, text), "");
    EXPECT_EQ(text, "world");
}

TEST_F(OpenTcpStream, PiecesAreJoined) {
    ASSERT_EQ(connect(), "");
    mostBytes = 1;
    EXPECT_EQ(stream.send(bytesOf("hello"), plainWaiter, soon()), "");
    EXPECT_EQ(peer.hear(5), "hello");
    peer.say("world");
    std::string text;
    EXPECT_EQ(receive(5, text), "");
    EXPECT_EQ(text, "world");
}

TEST_F(OpenTcpStream, AnInterruptedOrBusyCallIsMadeAgain) {
    ASSERT_EQ(connect(), "");
    for (const int error : {EINTR, EAGAIN}) {
        failSend = error;
        EXPECT_EQ(stream.send(bytesOf("x"), plainWaiter, soon()), "");
        peer.say("y");
        failReceive = error;
        std::string text;
        EXPECT_EQ(receive(1, text), "");
    }
}

TEST_F(OpenTcpStream, ALostConnectionSaysWhy) {
    ASSERT_EQ(connect(), "");
    failSend = EPIPE;
    EXPECT_EQ(stream.send(bytesOf("x"), plainWaiter, soon()), "the connection was lost: " + errorText(EPIPE));
    failReceive = ECONNRESET;
    std::string text;
    EXPECT_EQ(receive(1, text), "the connection was lost: " + errorText(ECONNRESET));
}

TEST_F(OpenTcpStream, AServerThatHangsUpIsTold) {
    ASSERT_EQ(connect(), "");
    peer.say("half");
    peer.hangUp();
    std::string text;
    EXPECT_EQ(receive(5, text), "the server closed the connection");
}

TEST_F(OpenTcpStream, ASilentServerEndsAtTheLimit) {
    ASSERT_EQ(connect(), "");
    expirePoll = true;
    std::string text;
    EXPECT_EQ(receive(1, text), "the server does not answer in time");
}

TEST_F(OpenTcpStream, AConnectionThatIsRefusedSaysSo) {
    failConnect = ECONNREFUSED;
    EXPECT_EQ(connect(), "cannot be reached: " + errorText(ECONNREFUSED));
    EXPECT_EQ(stream.descriptor(), -1);
}

TEST_F(OpenTcpStream, AConnectionThatHangsEndsAtTheLimit) {
    failConnect = EINPROGRESS;
    expirePoll = true;
    EXPECT_EQ(connect(), "the server does not answer in time");
    EXPECT_EQ(stream.descriptor(), -1);
}

TEST_F(OpenTcpStream, AnAddressThatHangsLeavesTheOthersTheirShareOfTheTime) {
    const EndingWaiter waiter(Waiter::Result::timedOut, 1);
    addresses = 3;
    failConnect = EINPROGRESS;
    EXPECT_EQ(connect(waiter), "");
    EXPECT_EQ(waiter.limits[0], 10);
}

TEST_F(OpenTcpStream, AServerWhoseAddressesAllHangEndsAtTheLimit) {
    const EndingWaiter waiter(Waiter::Result::timedOut, 2);
    addresses = 2;
    failConnect = EINPROGRESS;
    EXPECT_EQ(connect(waiter), "the server does not answer in time");
    EXPECT_EQ(waiter.limits, (std::vector<std::int64_t>{15, 30}));
    EXPECT_EQ(stream.descriptor(), -1);
}

TEST_F(OpenTcpStream, AClosedHandleTriesNoFurtherAddress) {
    const EndingWaiter waiter(Waiter::Result::closed, 3);
    addresses = 3;
    failConnect = EINPROGRESS;
    EXPECT_EQ(connect(waiter), "the handle was closed");
    EXPECT_EQ(waiter.limits.size(), 1U);
    EXPECT_EQ(stream.descriptor(), -1);
}

TEST_F(OpenTcpStream, TheTimeOfTheLookUpIsNotTakenFromTheConnection) {
    lookUpTime = 100;
    ASSERT_EQ(connect(), "");
    EXPECT_GT(until - monotonicNow(), std::chrono::seconds(10));
}

TEST_F(OpenTcpStream, EveryCallMayFail) {
    failSocket = EMFILE;
    EXPECT_EQ(connect(), "no socket: " + errorText(EMFILE));
    failConnect = EINPROGRESS;
    failPoll = ENOMEM;
    EXPECT_EQ(connect(), "cannot wait: " + errorText(ENOMEM));
    failConnect = EINPROGRESS;
    failOption = ENOBUFS;
    EXPECT_EQ(connect(), "cannot be reached: " + errorText(ENOBUFS));
    EXPECT_EQ(connect(), "");
}

TEST_F(OpenTcpStream, ANameThatIsNotKnownSaysSo) {
    until = soon();
    const std::string reason = stream.connect({"no-such-name.invalid", 1}, plainWaiter, until);
    EXPECT_EQ(reason.substr(0, 35), "the name of the server is not known");
}

TEST_F(OpenTcpStream, TheDescriptorIsNonBlockingAndClosedOnExec) {
    ASSERT_EQ(connect(), "");
    EXPECT_NE(fcntl(stream.descriptor(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(stream.descriptor(), F_GETFD) & FD_CLOEXEC, 0);
}

}  // namespace
