//  The TCP connection, with servers of the test on loopback, and with system calls that fail.
#include "net/tcp_stream.h"

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

//  errno with which the next call fails; 0 for success.
thread_local int failSocket, failConnect, failOption, failSend, failReceive, failPoll;
thread_local std::size_t maxBytes = SIZE_MAX;
thread_local bool expirePoll = false;

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
    return fails(failSend) ? -1 : __real_send(descriptor, bytes, std::min(count, maxBytes), flags);
}
ssize_t __real_recv(int, void*, std::size_t, int);
ssize_t __wrap_recv(int descriptor, void* bytes, std::size_t count, int flags) {
    return fails(failReceive) ? -1 : __real_recv(descriptor, bytes, std::min(count, maxBytes), flags);
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

//  A listening socket on ::1, and the server's end of the connection that take() accepts.
class Peer {
public:
    Peer() : listener_(__real_socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        address_.sin6_family = AF_INET6;
        address_.sin6_addr = in6addr_loopback;
        socklen_t length = sizeof address_;
        bind(listener_, reinterpret_cast<sockaddr*>(&address_), length);
        listen(listener_, 1);
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address_), &length);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer() {
        hangUp();
        close(listener_);
    }
    ServerAddress address() const {
        ServerAddress address{};
        address.length = sizeof address_;
        std::memcpy(&address.bytes, &address_, sizeof address_);
        return address;
    }
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
    //  Reads until the connection ends. Returns the errno of the end, or 0 if the client closed it without a reset.
    int hearEnd() {
        char bytes[65536];
        ssize_t taken = 1;
        while (taken > 0)
            taken = read(descriptor_, bytes, sizeof bytes);
        return taken == 0 ? 0 : errno;
    }
    void hangUp() {
        if (descriptor_ >= 0)
            close(descriptor_);
        descriptor_ = -1;
    }

private:
    int listener_;
    int descriptor_ = -1;
    sockaddr_in6 address_{};
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
        maxBytes = SIZE_MAX;
        expirePoll = false;
    }
    std::string connect(const Waiter& waiter = plainWaiter) {
        std::string reason = stream.connect(peer.address(), waiter, soon()).reason;
        if (reason.empty())
            peer.take();
        return reason;
    }
    std::string receive(std::size_t count, std::string& text) {
        std::vector<std::uint8_t> bytes(count);
        std::string reason = stream.receive(bytes, plainWaiter, soon()).reason;
        text.assign(bytes.begin(), bytes.end());
        return reason;
    }

    Peer peer;
    TcpStream stream;
};

class EndingWaiter : public Waiter {
public:
    explicit EndingWaiter(Result result) : result_(result) {}
    Result wait(int, short, std::chrono::milliseconds) const noexcept override { return result_; }

private:
    Result result_;
};

TEST_F(OpenTcpStream, BytesAreSentAndReceived) {
    ASSERT_EQ(connect(), "");
    EXPECT_EQ(stream.send(bytesOf("hello"), plainWaiter, soon()).reason, "");
    EXPECT_EQ(peer.hear(5), "hello");
    peer.say("world");
    std::string text;
    EXPECT_EQ(receive(5, text), "");
    EXPECT_EQ(text, "world");
}

TEST_F(OpenTcpStream, PartsOfAMessageAreJoined) {
    ASSERT_EQ(connect(), "");
    maxBytes = 1;
    EXPECT_EQ(stream.send(bytesOf("hello"), plainWaiter, soon()).reason, "");
    EXPECT_EQ(peer.hear(5), "hello");
    peer.say("world");
    std::string text;
    EXPECT_EQ(receive(5, text), "");
    EXPECT_EQ(text, "world");
}

TEST_F(OpenTcpStream, AnInterruptedOrBusyCallIsRepeated) {
    ASSERT_EQ(connect(), "");
    for (const int error : {EINTR, EAGAIN}) {
        failSend = error;
        EXPECT_EQ(stream.send(bytesOf("x"), plainWaiter, soon()).reason, "");
        peer.say("y");
        failReceive = error;
        std::string text;
        EXPECT_EQ(receive(1, text), "");
    }
}

TEST_F(OpenTcpStream, ALostConnectionReportsWhy) {
    ASSERT_EQ(connect(), "");
    failSend = EPIPE;
    EXPECT_EQ(stream.send(bytesOf("x"), plainWaiter, soon()).reason, "the connection was lost: " + errorText(EPIPE));
    failReceive = ECONNRESET;
    std::string text;
    EXPECT_EQ(receive(1, text), "the connection was lost: " + errorText(ECONNRESET));
}

TEST_F(OpenTcpStream, AServerThatClosesTheConnectionIsReported) {
    ASSERT_EQ(connect(), "");
    peer.say("half");
    peer.hangUp();
    std::string text;
    EXPECT_EQ(receive(5, text), "the server closed the connection");
}

TEST_F(OpenTcpStream, TheWaitForASilentServerEndsAtTheTimeLimit) {
    ASSERT_EQ(connect(), "");
    expirePoll = true;
    std::string text;
    EXPECT_EQ(receive(1, text), "the server does not answer in time");
}

TEST_F(OpenTcpStream, ARefusedConnectionIsReported) {
    failConnect = ECONNREFUSED;
    EXPECT_EQ(connect(), "cannot be reached: " + errorText(ECONNREFUSED));
    EXPECT_EQ(stream.descriptor(), -1);
}

TEST_F(OpenTcpStream, TheWaitForAConnectionEndsAtTheTimeLimit) {
    failConnect = EINPROGRESS;
    expirePoll = true;
    EXPECT_EQ(connect(), "the server does not answer in time");
    EXPECT_EQ(stream.descriptor(), -1);
}

TEST_F(OpenTcpStream, AnyOtherFailureOfAWaitIsReported) {
    const std::pair<Waiter::Result, std::string> rows[]{{Waiter::Result::closed, "the handle was closed"},
                                                        {Waiter::Result::callWaits, "a call waits"}};
    for (const auto& [result, reason] : rows) {
        failConnect = EINPROGRESS;
        EXPECT_EQ(connect(EndingWaiter(result)), reason);
        EXPECT_EQ(stream.descriptor(), -1);
    }
}

TEST_F(OpenTcpStream, TheCallsThatMakeAConnectionMayFail) {
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

TEST_F(OpenTcpStream, TheDescriptorIsNonBlockingAndClosedOnExec) {
    ASSERT_EQ(connect(), "");
    EXPECT_NE(fcntl(stream.descriptor(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(stream.descriptor(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(OpenTcpStream, ClosingWithdrawsWhatTheServerHasNotConfirmed) {
    ASSERT_EQ(connect(), "");
    const std::string request(16U << 20U, 'x');  // more than the buffers of both ends take
    EXPECT_EQ(stream.send(bytesOf(request), EndingWaiter(Waiter::Result::timedOut), soon()).reason,
              "the server does not answer in time");
    EXPECT_TRUE(stream.hasUnconfirmed());
    stream.close();
    EXPECT_EQ(peer.hearEnd(), ECONNRESET);
}

TEST_F(OpenTcpStream, ClosingEndsAConnectionInOrderIfEverythingIsConfirmed) {
    EXPECT_FALSE(stream.hasUnconfirmed());
    ASSERT_EQ(connect(), "");
    EXPECT_EQ(stream.send(bytesOf("hello"), plainWaiter, soon()).reason, "");
    EXPECT_EQ(peer.hear(5), "hello");
    ASSERT_TRUE(eventually([this] { return !stream.hasUnconfirmed(); }));
    stream.close();
    EXPECT_EQ(peer.hearEnd(), 0);
}

}  // namespace
