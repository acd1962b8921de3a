//  A signal handler calls rdb_disconnect and rdb_destory at any moment of the exchanges with a server.
#include "engine/errors.h"
#include "open_dns_support.h"
#include "open_interrupt.h"

#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <unistd.h>

namespace {

using namespace opentest;

//  The server's thread blocks SIGALRM, so that the test's thread receives the signal.
std::unique_ptr<DnsServer> serverOf(const DnsServer::Script& script) {
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
    auto server = std::make_unique<DnsServer>(script);
    pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
    return server;
}

constexpr unsigned opcodeUpdate = 5;  // RFC 2136 section 1.3

//  Connects and sends updates until the signal handler has run. Calls `startTimer` before it connects.
void roundOf(const std::string& url, const std::function<void()>& startTimer) {
    const std::string text = R"({"request":"ws_dnsupdate","seqno":1,"item":{"name":"h","ipv6s":["2001:db8::1"]}})";
    Events events;
    const int handle = rdb_create();
    ASSERT_GE(handle, 0);
    ASSERT_EQ(rdb_setmessagenotify(handle, onEvent, &events), 0);
    handleToEnd = handle;
    startTimer();
    const int result = rdb_connectex(handle, url.c_str(), "key1", testSecret, 0);
    const auto until = std::chrono::steady_clock::now() + hangLimit;
    while (interrupted == 0 && std::chrono::steady_clock::now() < until)
        rdb_callmsg(handle, text.data(), static_cast<std::int32_t>(text.size()), ignoreReply, nullptr);
    const bool inTime = interrupted != 0;
    rdb_destory(handle);          // needed if the handler did not run
    ASSERT_TRUE(workersEnded());  // the callback writes to events, so it must have ended
    ASSERT_TRUE(inTime);
    const bool ended = result == rdbopen::errorClosed || result == rdbopen::errorBadHandle;
    ASSERT_TRUE(result == 0 || ended) << result;
}

constexpr int never = 0;  // with this number of microseconds the timer is not started

//  In every second round the timer starts when the server receives the first request. So exchanges are interrupted even
//  on a slow machine.
TEST(DnsSignalHandler, MayDisconnectAndDestroyAtAnyMoment) {
    constexpr int rounds = 1000;
    std::minstd_rand random(1);
    std::atomic<int> afterRequest{never};
    const auto server = serverOf([&random, &afterRequest](const SeenRequest& seen) {
        if (const int microseconds = afterRequest.exchange(never); microseconds != never)
            interruptIn(microseconds);
        if (random() % 4 == 0)
            return Reaction{{0, 50, 1}, random() % 2 == 0 ? Reaction::Then::end : Reaction::Then::keepSilent};
        return Reaction{framed(genuineAnswer(seen, 0, {soaOf("example.org")})), Reaction::Then::goOn};
    });
    for (int round = 0; round < rounds; ++round) {
        const int microseconds = 20 + round * 37 % 2000;
        const bool atRequest = round % 2 != 0;
        //  The server may still read a request of the round before. It then starts the timer as soon as afterRequest is
        //  set, so interruptIn(never) must come first.
        ASSERT_NO_FATAL_FAILURE(roundOf(server->url(), [&] {
            interruptIn(atRequest ? never : microseconds);
            afterRequest = atRequest ? microseconds : never;
        })) << round;
    }
    EXPECT_GE(server->connections(), rounds / 2);
}

TEST(DnsSignalHandler, MayDisconnectAndDestroyWhileTheServerDelaysAnAnswer) {
    for (const unsigned held : {0U, opcodeUpdate}) {
        std::atomic<bool> asked{false};
        const auto server = serverOf([held, &asked](const SeenRequest& seen) {
            if (seen.opcode != held)
                return Reaction{framed(genuineAnswer(seen, 0, {soaOf("example.org")})), Reaction::Then::goOn};
            asked = true;
            kill(getpid(), SIGALRM);  // only the test's thread receives it
            return Reaction{{}, Reaction::Then::keepSilent};
        });
        ASSERT_NO_FATAL_FAILURE(roundOf(server->url(), [] { interruptIn(never); })) << held;
        EXPECT_TRUE(asked) << held;
    }
}

}  // namespace
