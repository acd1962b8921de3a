//  Checks of the back end dns over UDP, with servers that answer according to a script. A datagram that is not an
//  authentic answer has no effect.
#include "dns/backend.h"
#include "engine/errors.h"
#include "open_dns_support.h"
#include "open_interrupt.h"

#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <set>
#include <sys/socket.h>
#include <unistd.h>

namespace {

std::atomic<int> datagramsSent{0};
std::atomic<int> streamSockets{0};                  // number of TCP sockets created
std::atomic<int> clockAhead{0};                     // ms by which the monotonic clock is ahead
std::atomic<bool> hurry{false};                     // the pauses of a worker move the clock instead of taking time
thread_local std::optional<timespec> stoppedClock;  // the thread's monotonic time without clockAhead; null: real time
thread_local bool flooded = false;                  // each recv of a datagram takes 10 ms and returns 100 zero bytes
thread_local int receivedOfFlood = 0;

bool isDatagramSocket(int descriptor) {
    int type = 0;
    socklen_t length = sizeof type;
    return getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_DGRAM;
}

}  // namespace

extern "C" {

int __real_clock_gettime(clockid_t, timespec*);
int __wrap_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    const int result = __real_clock_gettime(clock, now);
    if (clock == CLOCK_MONOTONIC) {
        *now = stoppedClock.value_or(*now);
        now->tv_sec += clockAhead / 1000;
        now->tv_nsec += clockAhead % 1000 * 1000000L;
        now->tv_sec += now->tv_nsec / 1000000000;
        now->tv_nsec %= 1000000000;
    }
    return result;
}

//  While `hurry` is true, a poll of one descriptor with a time limit is always a worker's: it waits for work, or pauses
//  after a failure. Such a poll takes at most 1 ms. If nothing has arrived, the clock advances by the time limit.
int __real_poll(pollfd* waited, nfds_t count, int timeout);
int __wrap_poll(pollfd* waited, nfds_t count, int timeout);
int __wrap_poll(pollfd* waited, nfds_t count, int timeout) {
    if (!hurry || count != 1 || timeout <= 1)
        return __real_poll(waited, count, timeout);
    const int ready = __real_poll(waited, count, 1);
    if (ready == 0)
        clockAhead += timeout;
    return ready;
}

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
    streamSockets += (type & 0xf) == SOCK_STREAM ? 1 : 0;
    return __real_socket(domain, type, protocol);
}

ssize_t __real_send(int descriptor, const void* bytes, size_t size, int flags);
ssize_t __wrap_send(int descriptor, const void* bytes, size_t size, int flags);
ssize_t __wrap_send(int descriptor, const void* bytes, size_t size, int flags) {
    const ssize_t sent = __real_send(descriptor, bytes, size, flags);
    if (sent >= 0 && isDatagramSocket(descriptor))
        ++datagramsSent;
    return sent;
}

ssize_t __real_recv(int descriptor, void* bytes, size_t size, int flags);
ssize_t __wrap_recv(int descriptor, void* bytes, size_t size, int flags);
ssize_t __wrap_recv(int descriptor, void* bytes, size_t size, int flags) {
    if (!flooded || !isDatagramSocket(descriptor))
        return __real_recv(descriptor, bytes, size, flags);
    clockAhead += 10;
    ++receivedOfFlood;
    constexpr std::size_t length = 100;
    std::memset(bytes, 0, length);
    return length;
}
}

namespace {

using namespace opentest;
using namespace rdbopen;

constexpr const char* request =
    R"({"request":"ws_dnsupdate","seqno":7,"item":{"name":"host1","ipv6s":["2001:db8::1"],"httpsports":[443]}})";

const AnswerRecord aaaa{"host1.example.org", 28, fromHex("20010db8000000000000000000000001")};
const AnswerRecord https{"host1.example.org", 65, fromHex("0001 00 0006 0010 20010db8000000000000000000000001")};

//  For its lifetime the thread's monotonic clock advances only with clockAhead, however slow the machine is.
class StoppedClock {
public:
    StoppedClock() {
        timespec now{};
        __real_clock_gettime(CLOCK_MONOTONIC, &now);
        stoppedClock = now;
    }
    ~StoppedClock() { stoppedClock.reset(); }
    StoppedClock(const StoppedClock&) = delete;
    StoppedClock& operator=(const StoppedClock&) = delete;
};

//  Reports that the time has expired as soon as the server has nothing more to send.
class UdpWaiter : public Waiter {
public:
    explicit UdpWaiter(const DatagramServer& server) : server_(server), before_(datagramsSent - server.handled()) {}

    Result wait(int descriptor, short events, std::chrono::milliseconds until) const noexcept override {
        if (ended)
            return Result::closed;
        if (!isDatagramSocket(descriptor))
            return plainWaiter.wait(descriptor, events, until);
        limit = std::max(limit, until - monotonicNow());
        if (flooded)
            return Result::ready;
        for (;;) {
            const bool quiet = allHandled();  // queried before poll, so that poll sees the last datagram
            pollfd waited{descriptor, events, 0};
            if (poll(&waited, 1, 0) > 0)
                return Result::ready;
            if (quiet) {
                ended = endAtTimeout;
                return ended ? Result::closed : Result::timedOut;
            }
        }
    }
    bool cancelled() const noexcept override { return ended; }
    //  Returns whether the server has answered all datagrams that were sent to it.
    bool allHandled() const noexcept { return server_.handled() == datagramsSent - before_; }

    mutable std::chrono::milliseconds limit{0};
    bool endAtTimeout = false;  // a wait reports that the handle was closed, instead of an expired time

private:
    const DatagramServer& server_;
    const int before_;  // datagrams sent to other servers
    mutable bool ended = false;
};

std::vector<Datagram> honest(const SeenRequest& seen) {
    if (seen.type == typeHttps)
        return {{datagramAnswer(seen, 0, {https}, {aaaa})}};
    return {{datagramAnswer(seen, 0, {aaaa})}};
}

//  An open back end and its server. Over TCP the server is honest.
class DnsDatagrams : public testing::Test {
protected:
    DnsDatagrams() {
        backend = backendFor(server.url(), {"key1", testSecret});
        EXPECT_EQ(backend->open(plainWaiter).reason, "");
        server.requests().take();
    }

    //  Makes a check. This server, or a server with this script, answers over UDP.
    Status check(const DatagramServer::Script& script) {
        const DatagramServer datagrams(server.port(), script);
        return check(datagrams);
    }
    Status check(const DatagramServer& datagrams, bool end = false) {
        UdpWaiter waiter(datagrams);
        waiter.endAtTimeout = end;
        EXPECT_EQ(backend->open(waiter).reason, "");
        connectionsBefore = server.connections();
        socketsBefore = streamSockets;
        const StoppedClock stopped;
        const Status status = backend->updates()->checkRequest(request);
        limit = waiter.limit;
        while (!waiter.allHandled())  // the server counts a datagram after its answer
            std::this_thread::yield();
        return status;
    }
    int newConnections() const { return server.connections() - connectionsBefore; }

    DnsServer server{[](const SeenRequest& seen) {
        const AnswerRecord record = seen.type == 6 ? soaOf("example.org") : seen.type == typeHttps ? https : aaaa;
        return Reaction{framed(genuineAnswer(seen, 0, {record})), Reaction::Then::goOn};
    }};
    std::unique_ptr<Backend> backend;
    std::chrono::milliseconds limit{0};
    int connectionsBefore = 0;
    int socketsBefore = 0;
};

TEST_F(DnsDatagrams, OneQueryIsEnoughIfTheAnswerHasTheAddresses) {
    DatagramServer datagrams(server.port(), honest);
    EXPECT_EQ(check(datagrams).reason, "");
    EXPECT_EQ(datagrams.handled(), 1);
    EXPECT_EQ(newConnections(), 0);
    const SeenRequest seen = datagrams.requests().take();
    EXPECT_EQ(seen.owner, "host1.example.org");
    EXPECT_EQ(seen.mac.size(), 34U);
}

TEST_F(DnsDatagrams, TheAddressesAreQueriedUnlessTheAnswerHasExactlyThese) {
    AnswerRecord other = aaaa;
    other.data[15] = 9;
    const std::vector<std::vector<AnswerRecord>> additions{{}, {other}, {aaaa, other}};
    for (const auto& added : additions) {
        DatagramServer datagrams(server.port(), [&added](const SeenRequest& seen) {
            return seen.type == typeHttps ? std::vector<Datagram>{{datagramAnswer(seen, 0, {https}, added)}}
                                          : honest(seen);
        });
        EXPECT_EQ(check(datagrams).code, errorNone);
        EXPECT_EQ(datagrams.handled(), 2);
        EXPECT_EQ(newConnections(), 0);
    }
}

TEST_F(DnsDatagrams, MostQueriesHaveAnIdOfTheirOwn) {
    DatagramServer datagrams(server.port(), [](const SeenRequest& seen) {
        return std::vector<Datagram>{{datagramAnswer(seen, 0, {seen.type == typeHttps ? https : aaaa})}};
    });
    std::set<unsigned> ids;
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(check(datagrams).code, errorNone);
    while (datagrams.requests().count() != 0)
        ids.insert(datagrams.requests().take().id);
    EXPECT_GT(ids.size(), 30U);
}

TEST_F(DnsDatagrams, AMissingRecordIsDetected) {
    EXPECT_EQ(check([](const SeenRequest& seen) { return std::vector<Datagram>{{datagramAnswer(seen, 3)}}; }).code,
              errorNotHeld);
    EXPECT_EQ(newConnections(), 0);
}

TEST_F(DnsDatagrams, ARefusalCountsIfItIsSigned) {
    const Status status =
        check([](const SeenRequest& seen) { return std::vector<Datagram>{{datagramAnswer(seen, 5)}}; });
    EXPECT_EQ(status.code, errorServerRefused);
    EXPECT_EQ(newConnections(), 0);
}

//  Datagrams that must have no effect. Most of them report that the zone has no records.
std::vector<Datagram> hostileTo(const SeenRequest& seen) {
    const DnsBytes genuine = datagramAnswer(seen, 3);
    std::vector<Datagram> sent{{genuine, true}, {{}}};
    SeenRequest other = seen;
    other.id ^= 1;
    sent.push_back({datagramAnswer(other, 3)});
    other = seen;
    other.opcode = 5;
    sent.push_back({datagramAnswer(other, 3)});
    other = seen;
    other.mac.back() ^= 1;
    sent.push_back({datagramAnswer(other, 3)});
    other = seen;
    other.time -= 301;
    sent.push_back({datagramAnswer(other, 3)});
    other = seen;
    other.wire[13] ^= 1;  // the first letter of the question
    sent.push_back({datagramAnswer(other, 3)});
    sent.push_back({genuineAnswer(seen, 3)});  // without a question
    sent.push_back({withQuestion(plainAnswer(seen.id, 0, 3), seen)});
    for (const unsigned error : {16U, 17U, 18U}) {
        Signing signing;
        signing.empty = true;
        signing.error = error;
        sent.push_back({signMessage(withQuestion(plainAnswer(seen.id, 0, 9), seen), {}, signing)});
    }
    DnsBytes truncated = withQuestion(plainAnswer(seen.id, 0, 0), seen);
    truncated[2] |= 2;
    sent.push_back({truncated});
    return sent;
}

TEST_F(DnsDatagrams, ADatagramThatIsNotAnAuthenticAnswerIsIgnored) {
    EXPECT_EQ(check([](const SeenRequest& seen) {
                  std::vector<Datagram> sent = hostileTo(seen);
                  sent.push_back(honest(seen).front());
                  return sent;
              }).reason,
              "");
    EXPECT_EQ(newConnections(), 0);
}

TEST_F(DnsDatagrams, AnAnswerCutAtAnyByteIsIgnored) {
    const DatagramServer datagrams(server.port(), [](const SeenRequest& seen) {
        const DnsBytes whole = honest(seen).front().bytes;
        std::vector<Datagram> sent;
        for (std::size_t size = 0; size < whole.size(); ++size)
            sent.push_back({{whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)}});
        sent.push_back({whole});
        return sent;
    });
    EXPECT_EQ(check(datagrams).reason, "");
    EXPECT_EQ(newConnections(), 0);
}

TEST_F(DnsDatagrams, AnAnswerWithAnyByteChangedIsIgnored) {
    const DatagramServer datagrams(server.port(), [](const SeenRequest& seen) {
        const DnsBytes missing = datagramAnswer(seen, 3);
        std::vector<Datagram> sent;
        for (std::size_t at = 0; at < missing.size(); ++at) {
            sent.push_back({missing});
            sent.back().bytes[at] ^= 0x80;
        }
        sent.push_back(honest(seen).front());
        return sent;
    });
    EXPECT_EQ(check(datagrams).reason, "");
    EXPECT_EQ(newConnections(), 0);
}

TEST_F(DnsDatagrams, WithoutAnAuthenticAnswerTheQueryIsRepeatedOnceAndThenSentOverTcp) {
    const DatagramServer::Script scripts[] = {hostileTo, [](const SeenRequest&) { return std::vector<Datagram>(); }};
    for (const auto& script : scripts) {
        DatagramServer datagrams(server.port(), script);
        EXPECT_EQ(check(datagrams).reason, "");
        EXPECT_EQ(datagrams.handled(), 2);
        EXPECT_EQ(datagrams.requests().take().wire, datagrams.requests().take().wire);
        EXPECT_EQ(newConnections(), 1);
        EXPECT_LE(limit.count(), 1000);
        EXPECT_GT(limit.count(), 500);
    }
}

TEST_F(DnsDatagrams, AnAnswerToTheRepeatedQueryCounts) {
    int queries = 0;
    EXPECT_EQ(check([&queries](const SeenRequest& seen) {
                  return ++queries == 1 ? std::vector<Datagram>() : honest(seen);
              }).reason,
              "");
    EXPECT_EQ(queries, 2);
    EXPECT_EQ(newConnections(), 0);
}

TEST_F(DnsDatagrams, ATruncatedAnswerIsRequestedOverTcp) {
    DatagramServer datagrams(server.port(), [](const SeenRequest& seen) {
        DnsBytes message = withQuestion(plainAnswer(seen.id, 0, 0), seen);
        message[2] |= 2;
        Signing signing;
        signing.time = seen.time;
        return std::vector<Datagram>{{signMessage(message, seen.mac, signing)}};
    });
    EXPECT_EQ(check(datagrams).reason, "");
    EXPECT_EQ(datagrams.handled(), 1);
    EXPECT_EQ(newConnections(), 1);
}

TEST_F(DnsDatagrams, AServerWithoutUdpIsCheckedOverTcp) {
    connectionsBefore = server.connections();
    EXPECT_EQ(backend->updates()->checkRequest(request).reason, "");
    EXPECT_EQ(newConnections(), 1);
}

TEST_F(DnsDatagrams, AFloodOfDatagramsEndsWithTheTimeLimit) {
    const DatagramServer datagrams(server.port(), [](const SeenRequest&) { return std::vector<Datagram>(); });
    flooded = true;
    EXPECT_EQ(check(datagrams).reason, "");
    flooded = false;
    EXPECT_GE(receivedOfFlood, 100);
    EXPECT_LE(receivedOfFlood, 202);
    EXPECT_EQ(newConnections(), 1);
}

TEST_F(DnsDatagrams, ClosingTheHandleEndsTheWait) {
    const DatagramServer datagrams(server.port(), [](const SeenRequest&) { return std::vector<Datagram>(); });
    EXPECT_EQ(check(datagrams, true).code, errorBackendFailed);
    EXPECT_EQ(datagrams.handled(), 1);
    EXPECT_EQ(streamSockets, socketsBefore);
}

TEST_F(DnsDatagrams, ACheckLeavesNoDescriptorOpen) {
    const DatagramServer datagrams(server.port(), hostileTo);
    const std::size_t before = entriesOf("/proc/self/fd");
    EXPECT_EQ(check(datagrams).reason, "");
    //  The server closes its descriptor of a connection a moment later.
    EXPECT_TRUE(eventually([before] { return entriesOf("/proc/self/fd") <= before; }));
}

//  The pauses between checks are skipped, so the signal arrives during the checks, at any of their moments.
TEST(DnsDatagramSignalHandler, MayDisconnectAndDestroyAtAnyMomentOfACheck) {
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarm, nullptr);  // the threads of the servers do not receive the signal
    DnsServer server([](const SeenRequest& seen) {
        return Reaction{framed(genuineAnswer(seen, 0, {soaOf("example.org")})), Reaction::Then::goOn};
    });
    std::minstd_rand random(1);
    const DatagramServer datagrams(server.port(), [&random](const SeenRequest& seen) {
        return random() % 4 == 0 ? hostileTo(seen) : honest(seen);
    });
    pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
    hurry = true;
    for (int round = 0; round < 300; ++round) {
        Events events;
        const int handle = rdb_create();
        ASSERT_EQ(rdb_setmessagenotify(handle, onEvent, &events), 0);
        ASSERT_EQ(rdb_connectex(handle, server.url("/example.org?check=1").c_str(), "key1", testSecret, 0), 0);
        EXPECT_EQ(events.take(), 60001);
        ASSERT_EQ(rdb_callmsg(handle, request, static_cast<std::int32_t>(std::strlen(request)), ignoreReply, nullptr),
                  0);
        handleToEnd = handle;
        const int before = datagrams.handled();
        ASSERT_TRUE(eventually([&] { return datagrams.handled() > before; })) << round;
        interruptIn(20 + round * 37 % 2000);
        ASSERT_TRUE(eventually([] { return interrupted != 0; })) << round;
        ASSERT_TRUE(workersEnded()) << round;
    }
    hurry = false;
}

}  // namespace
