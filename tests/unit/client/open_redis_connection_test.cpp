//  The back end redis with truncated, slow and endless answers, and with failing system calls. The clock advances only
//  when a test advances it.
#include "open_fake_redis.h"
#include "open_support.h"

#include <atomic>
#include <cerrno>
#include <functional>
#include <gtest/gtest.h>
#include <sys/socket.h>

namespace {

std::atomic<std::int64_t> shift{0};  // offset of the clock, ms
std::atomic<int> failSocket{0}, failConnect{0}, failSend{0}, failRecv{0};
std::atomic<std::size_t> sendAtMost{0};  // bytes, 0 for no limit
std::atomic<bool> slowRecv{false};       // recv returns one byte at a time and takes a second for each

//  `planned` is the errno with which the next call must fail, or 0. Sets it to 0. Returns true and sets errno if the
//  call must fail.
bool failsNow(std::atomic<int>& planned) {
    const int error = planned.exchange(0);
    errno = error == 0 ? errno : error;
    return error != 0;
}

}  // namespace

extern "C" {

int __wrap_clock_gettime(clockid_t, timespec* now);
int __wrap_clock_gettime(clockid_t, timespec* now) {
    *now = {1000000 + shift / 1000, 0};
    return 0;
}

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
    return failsNow(failSocket) ? -1 : __real_socket(domain, type, protocol);
}

int __real_connect(int descriptor, const sockaddr* address, socklen_t length);
int __wrap_connect(int descriptor, const sockaddr* address, socklen_t length) {
    return failsNow(failConnect) ? -1 : __real_connect(descriptor, address, length);
}

ssize_t __real_send(int descriptor, const void* bytes, size_t count, int flags);
ssize_t __wrap_send(int descriptor, const void* bytes, size_t count, int flags) {
    const std::size_t most = sendAtMost;
    return failsNow(failSend) ? -1 : __real_send(descriptor, bytes, most == 0 ? count : std::min(most, count), flags);
}

ssize_t __real_recv(int descriptor, void* bytes, size_t count, int flags);
ssize_t __wrap_recv(int descriptor, void* bytes, size_t count, int flags) {
    if (failsNow(failRecv))
        return -1;
    shift += slowRecv ? 1000 : 0;
    return __real_recv(descriptor, bytes, slowRecv ? 1 : count, flags);
}
}

namespace {

using namespace opentest;
using namespace rdbopen;

//  Records the longest time limit of a wait. If `result` is not `ready`, each wait for input returns `result` at once.
class ImpatientWaiter : public Waiter {
public:
    Result wait(int descriptor, short events, std::chrono::milliseconds until) const noexcept override {
        longest = std::max(longest, until - monotonicNow());
        if (result == Result::ready || events == POLLOUT)
            return plainWaiter.wait(descriptor, events, until);
        return result;
    }
    mutable std::chrono::milliseconds longest{0};
    Result result = Result::ready;
};

//  Every wait advances the clock by one second.
class SlowWaiter : public Waiter {
public:
    Result wait(int descriptor, short events, std::chrono::milliseconds until) const noexcept override {
        ++waits;
        say();
        const Result result = plainWaiter.wait(descriptor, events, until + std::chrono::hours(1));
        shift += 1000;
        return monotonicNow() >= until ? Result::timedOut : result;
    }
    std::function<void()> say = [] {};
    mutable int waits = 0;
};

class RedisConnection_ : public testing::Test {
protected:
    RedisConnection_() {
        shift = 0;
        for (std::atomic<int>* planned : {&failSocket, &failConnect, &failSend, &failRecv})
            *planned = 0;
        sendAtMost = 0;
        slowRecv = false;
        backend = backendFor(server.url(), {"u", "secret"});
    }
    void open() { ASSERT_EQ(backend->open(waiter).code, 0); }
    Status import() { return backend->tags()->import(usableTag("host1")); }

    FakeRedis server;
    ImpatientWaiter waiter;
    std::unique_ptr<Backend> backend;
};

using RedisConnection = RedisConnection_;

TEST_F(RedisConnection, OpeningIsLimitedToTenSeconds) {
    server.answer("AUTH", "");
    waiter.result = Waiter::Result::timedOut;
    EXPECT_EQ(backend->open(waiter).code, errorBackendFailed);
    EXPECT_EQ(waiter.longest, std::chrono::seconds(10));
}

TEST_F(RedisConnection, ARequestIsLimitedToFiveSeconds) {
    const RdbSnapshot record = recordOf("host1", "v");
    RdbTag tag = usableTag("host1");
    const std::function<Status()> requests[]{
        [&] { return backend->tags()->get(tag); }, [&] { return backend->tags()->import(tag); },
        [&] {
            return backend->tags()->put({&record, 1});
        },
        [&] { return backend->tags()->checkValue(record); }, [&] { return backend->probe(); }};
    for (const auto& request : requests) {
        open();
        for (const char* word : {"HMGET", "EVALSHA", "PING"})
            server.answer(word, "");
        waiter.longest = {};
        waiter.result = Waiter::Result::timedOut;
        EXPECT_EQ(request().code, errorBackendFailed);
        EXPECT_EQ(waiter.longest, std::chrono::seconds(5));
        waiter.result = Waiter::Result::ready;
        backend->close();
        server.clearAnswers();
    }
}

TEST_F(RedisConnection, AnUnansweredRequestFails) {
    open();
    waiter.result = Waiter::Result::timedOut;
    server.answer("EVALSHA", "");
    const Status outcome = import();
    EXPECT_EQ(outcome.code, errorBackendFailed);
    EXPECT_EQ(outcome.reason, "the server does not answer in time");
}

TEST_F(RedisConnection, AClosedHandleEndsTheWaitForAnAnswer) {
    open();
    server.answer("PING", "");
    waiter.result = Waiter::Result::closed;
    EXPECT_EQ(backend->probe().reason, "the handle was closed");
}

TEST_F(RedisConnection, ASlowAnswerIsEndedAtTheTimeLimit) {
    SlowWaiter slow;
    ASSERT_EQ(backend->open(slow).code, 0);
    shift = 0;
    slow.waits = 0;
    slow.say = [this] {
        eventually([this] { return server.received("PING").size() == 2; });
        server.say("1");
    };
    server.answer("PING", "+P");
    const Status outcome = backend->probe();
    EXPECT_EQ(outcome.code, errorBackendFailed);
    EXPECT_EQ(outcome.reason, "the server does not answer in time");
    EXPECT_LE(slow.waits, 6);
}

TEST_F(RedisConnection, AnAnswerWithoutPausesIsEndedAtTheTimeLimit) {
    open();
    slowRecv = true;
    EXPECT_EQ(backend->probe().reason, "the server does not answer in time");
}

TEST_F(RedisConnection, ARequestThatIsSentByteByByteArrives) {
    open();
    sendAtMost = 1;
    EXPECT_EQ(import().code, 0);
    EXPECT_EQ(server.received("EVALSHA").size(), 1U);
}

TEST_F(RedisConnection, AnAnswerTruncatedAnywhereFailsTheImport) {
    const std::pair<const char*, std::string> answers[]{{"EVALSHA", "*1\r\n$4\r\ndone\r\n"},
                                                        {"EVALSHA", "*2\r\n$7\r\nforeign\r\n$1\r\nk\r\n"},
                                                        {"EVAL", "*1\r\n$9\r\nconfirmed\r\n"}};
    for (const auto& [word, whole] : answers) {
        for (std::size_t length = 0; length < whole.size(); ++length) {
            open();
            if (std::string_view(word) == "EVAL")
                server.answer("EVALSHA", "-NOSCRIPT No matching script. Please use EVAL.\r\n");
            server.answerAndClose(word, whole.substr(0, length));
            EXPECT_EQ(import().code, errorBackendFailed) << word << length;
            backend->close();
        }
    }
}

TEST_F(RedisConnection, AnEndlessOrMalformedAnswerIsAFailure) {
    for (const std::string& bytes :
         {"+" + std::string(300000, 'x'), "$2000000000\r\n" + std::string(300000, 'x'), std::string("*2147483647\r\n"),
          "*3\r\n" + std::string(300000, '\n'), std::string("\0\r\n", 3)}) {
        open();
        server.answer("PING", bytes);
        EXPECT_EQ(backend->probe().code, errorBackendFailed) << bytes.substr(0, 12);
        backend->close();
    }
}

TEST_F(RedisConnection, MoreAnswersThanRequestsAreAFailure) {
    open();
    server.answer("PING", "+PONG\r\n+PONG\r\n");
    const Status first = backend->probe();
    const Status second = first.code == 0 ? backend->probe() : first;
    EXPECT_EQ(second.code, errorBackendFailed);
}

//  If a server requires TLS, it may close the connection without sending an alert.
TEST_F(RedisConnection, IfTheServerClosesBeforeItsFirstAnswerTheReasonMentionsTls) {
    const std::string reason =
        "the server closed the connection before its first answer; perhaps its port accepts only TLS";
    failRecv = ECONNRESET;
    EXPECT_EQ(backend->open(waiter).reason, reason);
    backend->close();
    server.answerAndClose("AUTH", "");
    EXPECT_EQ(backend->open(waiter).reason, reason);
    backend->close();
    server.answerAndClose("PING", "");
    EXPECT_EQ(backend->open(waiter).reason, "the server closed the connection");
}

TEST_F(RedisConnection, FailingSystemCallsAreReportedWithTheirReason) {
    const struct {
        std::atomic<int>& call;
        int error;
        const char* reason;
    } rows[] = {{failSocket, EMFILE, "no socket: "},
                {failConnect, ENETUNREACH, "cannot be reached: "},
                {failConnect, ECONNREFUSED, "cannot be reached: "},
                {failSend, EPIPE, "the connection was lost: "},
                {failSend, ECONNRESET, "the connection was lost: "},
                {failRecv, ETIMEDOUT, "the connection was lost: "},
                {failRecv, ENOMEM, "the connection was lost: "}};
    for (const auto& row : rows) {
        row.call = row.error;
        const Status outcome = backend->open(waiter);
        EXPECT_EQ(outcome.code, errorBackendFailed) << row.reason;
        EXPECT_EQ(outcome.reason, row.reason + errorText(row.error));
        backend->close();
    }
    open();
}

TEST_F(RedisConnection, InterruptedCallsAreRepeated) {
    failSend = EINTR;
    failRecv = EINTR;
    open();
}

TEST_F(RedisConnection, ClosingClosesTheDescriptor) {
    const std::size_t before = entriesOf("/proc/self/fd");
    open();
    backend->close();
    backend->close();
    server.hangUp();
    EXPECT_EQ(entriesOf("/proc/self/fd"), before);
    EXPECT_EQ(backend->watchedDescriptor(), -1);
}

}  // namespace
