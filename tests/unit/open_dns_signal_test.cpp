//  rdb_disconnect and rdb_destory in a signal handler at any moment of the exchanges with a server.
#include "open_dns_support.h"
#include "open_interrupt.h"

#include <csignal>
#include <gtest/gtest.h>
#include <random>

namespace {

using namespace opentest;

//  The server's thread leaves the signal to the test's.
std::unique_ptr<DnsServer> serverOf(const DnsServer::Script& script) {
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
    auto server = std::make_unique<DnsServer>(script);
    pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
    return server;
}

TEST(DnsSignalHandler, MayDisconnectAndDestroyAtAnyMoment) {
    std::minstd_rand random(1);
    const auto server = serverOf([&random](const SeenRequest& seen) {
        if (random() % 4 == 0)
            return Reaction{{0, 50, 1}, random() % 2 == 0 ? Reaction::Then::end : Reaction::Then::keepSilent};
        return Reaction{framed(genuineAnswer(seen, 0, {soaOf("example.org")})), Reaction::Then::goOn};
    });
    const std::string url = server->url();
    const std::string text = R"({"request":"ws_dnsupdate","seqno":1,"item":{"name":"h","ipv6s":["2001:db8::1"]}})";
    for (int round = 0; round < 1000; ++round) {
        Events events;
        const int handle = rdb_create();
        ASSERT_GE(handle, 0);
        ASSERT_EQ(rdb_setmessagenotify(handle, onEvent, &events), 0);
        handleToEnd = handle;
        interruptIn(20 + round * 37 % 2000);
        rdb_connectex(handle, url.c_str(), "key1", testSecret, 0);
        while (interrupted == 0)
            rdb_callmsg(handle, text.data(), static_cast<std::int32_t>(text.size()), ignoreReply, nullptr);
        ASSERT_TRUE(workersEnded());  // the callback writes into events
    }
}

}  // namespace
