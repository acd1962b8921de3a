//  The back end dns with a server that violates the protocol, and with system calls that fail. No such exchange may
//  count as success, and the back end must not crash or hang.
#include "dns/backend.h"
#include "open_dns_support.h"

#include <cstdarg>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>
#include <sys/socket.h>

namespace {

thread_local const char* failingCall = "";
constexpr const char* flagTable = "/proc/self/net/if_inet6";

bool fails(const char* call) {
    errno = std::string(failingCall) == call ? EMFILE : 0;
    return errno != 0;
}

}  // namespace

extern "C" {

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
    return fails("socket") ? -1 : __real_socket(domain, type, protocol);
}

ssize_t __real_send(int descriptor, const void* bytes, size_t size, int flags);
ssize_t __wrap_send(int descriptor, const void* bytes, size_t size, int flags);
ssize_t __wrap_send(int descriptor, const void* bytes, size_t size, int flags) {
    return fails("send") ? -1 : __real_send(descriptor, bytes, size, flags);
}

ssize_t __real_recv(int descriptor, void* bytes, size_t size, int flags);
ssize_t __wrap_recv(int descriptor, void* bytes, size_t size, int flags);
ssize_t __wrap_recv(int descriptor, void* bytes, size_t size, int flags) {
    return fails("recv") ? -1 : __real_recv(descriptor, bytes, size, flags);
}

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
    return std::string(path) == flagTable && fails("open") ? -1 : __real_open(path, flags, 0600);
}
}

namespace {

using namespace opentest;
using namespace rdbopen;

constexpr const char* request =
    R"({"request":"ws_dnsupdate","seqno":7,"item":{"name":"host1","ipv6s":["2001:db8::1"]}})";

//  A waiter that stores the time limit of its last wait, and reports at once that the time has expired if the server
//  does not answer. Waits for a datagram may last until their time limit: if another program uses the same port for
//  UDP, it receives the query instead of the server, and answers nothing.
class ImpatientWaiter : public Waiter {
public:
    explicit ImpatientWaiter(const DnsServer& server) : server_(server) {}
    Result wait(int descriptor, short events, std::chrono::milliseconds until) const noexcept override {
        limit = until - monotonicNow();
        for (;;) {
            pollfd waited{descriptor, events, 0};
            const bool silent = server_.silent();
            if (poll(&waited, 1, 1) > 0)
                return Result::ready;
            if (silent || monotonicNow() >= until)
                return Result::timedOut;
        }
    }
    mutable std::chrono::milliseconds limit{0};

private:
    const DnsServer& server_;
};

Reaction honest(const SeenRequest& seen) {
    return {framed(genuineAnswer(seen, 0, {soaOf("example.org")})), Reaction::Then::goOn};
}

//  Sends an update request and a check to a server that answers queries for a SOA record correctly, and all other
//  messages as `hostile` defines. Returns the results of both.
std::pair<Status, Status> against(const DnsServer::Script& hostile) {
    DnsServer server([&hostile](const SeenRequest& seen) {
        return seen.type == 6 && seen.opcode == 0 ? honest(seen) : hostile(seen);
    });
    const ImpatientWaiter waiter(server);
    const auto backend = backendFor(server.url(), {"key1", testSecret});
    EXPECT_EQ(backend->open(waiter).reason, "");
    std::string reply;
    const Status sent = backend->updates()->apply(request, reply);
    EXPECT_EQ(reply.find("\"code\":0"), std::string::npos);
    return {sent, backend->updates()->checkRequest(request)};
}

void expectFailure(const DnsServer::Script& hostile, const std::string& reason) {
    const auto [sent, checked] = against(hostile);
    EXPECT_EQ(sent.code, errorBackendFailed);
    EXPECT_EQ(sent.reason, reason);
    EXPECT_EQ(checked.code, errorBackendFailed);
}

TEST(HostileDnsServer, AServerThatClosesTheConnectionFails) {
    expectFailure(
        [](const SeenRequest&) {
            return Reaction{{}, Reaction::Then::end};
        },
        "the server closed the connection");
}

TEST(HostileDnsServer, AServerThatTruncatesItsAnswerFails) {
    for (const std::size_t size : {1U, 2U, 3U, 20U, 100U})
        expectFailure(
            [size](const SeenRequest& seen) {
                DnsBytes bytes = framed(genuineAnswer(seen, 0));
                bytes.resize(std::min(size, bytes.size() - 1));
                return Reaction{bytes, Reaction::Then::end};
            },
            "the server closed the connection");
}

TEST(HostileDnsServer, AServerThatDoesNotAnswerFails) {
    for (const std::size_t size : {0U, 1U, 50U})
        expectFailure(
            [size](const SeenRequest& seen) {
                DnsBytes bytes = framed(genuineAnswer(seen, 0));
                bytes.resize(size);
                return Reaction{bytes, Reaction::Then::keepSilent};
            },
            "the server does not answer in time");
}

TEST(HostileDnsServer, AServerThatAnnouncesMoreBytesThanItSendsFails) {
    expectFailure(
        [](const SeenRequest& seen) {
            DnsBytes bytes = framed(genuineAnswer(seen, 0));
            bytes[0] = bytes[1] = 0xff;
            return Reaction{bytes, Reaction::Then::keepSilent};
        },
        "the server does not answer in time");
}

TEST(HostileDnsServer, AnEmptyAnswerFails) {
    expectFailure([](const SeenRequest&) { return Reaction{{0, 0}, Reaction::Then::goOn}; }, "the answer is too short");
}

TEST(HostileDnsServer, AnAnswerToAnotherRequestFails) {
    expectFailure(
        [](const SeenRequest& seen) {
            SeenRequest other = seen;
            other.id ^= 1;
            return Reaction{framed(genuineAnswer(other, 0)), Reaction::Then::goOn};
        },
        "the answer belongs to another request");
}

TEST(HostileDnsServer, AnAnswerSignedWithAnotherSecretFails) {
    expectFailure(
        [](const SeenRequest& seen) {
            Signing signing;
            signing.time = seen.time;
            signing.key.secret = "AAAA";
            const DnsBytes message = signMessage(plainAnswer(seen.id, seen.opcode, 0), seen.mac, signing);
            return Reaction{framed(message), Reaction::Then::goOn};
        },
        "the signature of the answer is wrong");
}

TEST(HostileDnsServer, AnUnsignedAnswerOfSuccessFails) {
    expectFailure(
        [](const SeenRequest& seen) {
            return Reaction{framed(plainAnswer(seen.id, seen.opcode, 0)), Reaction::Then::goOn};
        },
        "the answer is not signed");
}

TEST(HostileDnsServer, AnAnswerWithPointersInALoopOrBeyondItsEndFails) {
    for (const char* const name : {"c00c", "c00e c00c", "01 61 c00c", "c0ff"})
        expectFailure(
            [name](const SeenRequest& seen) {
                DnsBytes message = plainAnswer(seen.id, seen.opcode, 0);
                message[7] = 1;
                const DnsBytes record = fromHex(std::string(name) + "0001 0001 00000000 0000");
                message.insert(message.end(), record.begin(), record.end());
                Signing signing;
                signing.time = seen.time;
                return Reaction{framed(signMessage(message, seen.mac, signing)), Reaction::Then::goOn};
            },
            "the answer is malformed");
}

TEST(HostileDnsServer, AnAnswerOfRandomBytesFails) {
    std::minstd_rand random(1);
    for (int round = 0; round < 200; ++round) {
        const auto [sent, checked] = against([&random](const SeenRequest& seen) {
            DnsBytes message = plainAnswer(seen.id, seen.opcode, 0);
            const std::size_t size = message.size() + random() % 300;
            for (std::size_t i = 4; i < size; ++i)
                i < message.size() ? void(message[i] = static_cast<std::uint8_t>(random() % 3 == 0 ? 1 : 0))
                                   : message.push_back(static_cast<std::uint8_t>(random()));
            return Reaction{framed(message), Reaction::Then::goOn};
        });
        EXPECT_EQ(sent.code, errorBackendFailed);
        EXPECT_EQ(checked.code, errorBackendFailed);
    }
}

TEST(HostileDnsServer, AnUnsignedBadKeyIsARefusal) {
    const auto [sent, checked] = against([](const SeenRequest& seen) {
        Signing signing;
        signing.empty = true;
        signing.error = 17;
        const DnsBytes message = signMessage(plainAnswer(seen.id, seen.opcode, 9), {}, signing);
        return Reaction{framed(message), Reaction::Then::goOn};
    });
    EXPECT_EQ(sent.code, errorServerRefused);
    EXPECT_EQ(sent.reason,
              "BADKEY: the server does not know the key with this algorithm, or does not allow it to do this");
    EXPECT_EQ(checked.code, errorServerRefused);
}

TEST(HostileDnsServer, AServerThatDoesNotAnswerTheOpenFails) {
    DnsServer server([](const SeenRequest&) { return Reaction{{}, Reaction::Then::keepSilent}; });
    const ImpatientWaiter waiter(server);
    const auto backend = backendFor(server.url(), {"key1", testSecret});
    EXPECT_EQ(backend->open(waiter).reason, "the server does not answer in time");
    EXPECT_LE(waiter.limit.count(), 5000);
    EXPECT_GT(waiter.limit.count(), 1000);
}

TEST(DnsSystemCalls, FailuresAreReported) {
    DnsServer server(honest);
    const auto backend = backendFor(server.url("/example.org?skip=temporary"), {"key1", testSecret});
    ASSERT_EQ(backend->open(plainWaiter).code, errorNone);
    std::string reply;
    const std::pair<const char*, const char*> rows[] = {
        {"socket", "no socket: "},
        {"send", "the connection was lost: "},
        {"recv", "the connection was lost: "},
        {"open", "the flags of the addresses cannot be read: "},
    };
    for (const auto& [call, subject] : rows) {
        const std::string expected = subject + errorText(EMFILE);
        failingCall = call;
        EXPECT_EQ(backend->updates()->apply(request, reply).reason, expected);
        EXPECT_EQ(backend->updates()->checkRequest(request).reason, expected);
        EXPECT_EQ(backend->open(plainWaiter).code == errorNone, std::string(call) == "open");
    }
    failingCall = "";
}

}  // namespace
