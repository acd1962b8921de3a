//  A signal handler calls rdb_disconnect and rdb_destory at any moment of a connection to a Redis server: while
//  connecting, during the login, in a request, and between two requests.
#include "open_fake_redis.h"
#include "open_interrupt.h"
#include "open_support.h"

#include <gtest/gtest.h>

namespace {

using namespace opentest;

//  Connects and makes requests until the handler has run.
void roundOf(const std::string& url, int microseconds) {
    const int handle = rdb_create();
    ASSERT_GE(handle, 0);
    ASSERT_EQ(rdb_setmessagenotify(handle, ignoreEvent, nullptr), 0);
    handleToEnd = handle;
    interruptIn(microseconds);
    rdb_connectex(handle, url.c_str(), "u", "secret", 0);
    while (interrupted == 0) {
        RdbTag tag = usableTag("host1");
        std::int32_t result = 0;
        rdb_tagget(handle, &tag);
        rdb_taginport(handle, RDB_TAGINPORT_MODE, &tag, &result);
        const RdbSnapshot record = recordOf("host1", "v");
        rdb_objputsnapshot(handle, &record, 1);
    }
}

TEST(RedisSignal, MayEndTheHandleAtAnyMoment) {
    FakeRedis server;
    for (int round = 0; round < 1000; ++round)
        roundOf(server.url(), 20 + round * 37 % 3000);
    EXPECT_TRUE(workersEnded());
    EXPECT_GT(server.connections(), 0);
}

TEST(RedisSignal, EndsAConnectionWhoseServerIsSilent) {
    FakeRedis server;
    for (const char* word : {"AUTH", "PING", "HMGET", "EVALSHA"}) {
        server.answer(word, "");
        roundOf(server.url(), 20000);
        EXPECT_TRUE(workersEnded()) << word;
    }
}

//  Two nodes that never serve a request. They answer that the slot is being moved (ASK, TRYAGAIN), that the cluster is
//  down, and then always that the other node has the slot (MOVED).
class SignalCluster {
public:
    SignalCluster() {
        for (FakeRedis* node : {&one_, &two_}) {
            const FakeRedis& other = node == &one_ ? two_ : one_;
            const std::string port = std::to_string(other.port());
            node->usually("CLUSTER", "*1\r\n*3\r\n:0\r\n:16383\r\n*2\r\n$9\r\n127.0.0.1\r\n:" + port + "\r\n");
            for (const char* word : {"HMGET", "EVALSHA"})
                node->usually(word, "-MOVED 1 127.0.0.1:" + port + "\r\n");
        }
    }
    //  Sets the first answers of the next round.
    void prepare() {
        const std::string target = " 1 127.0.0.1:" + std::to_string(two_.port()) + "\r\n";
        for (FakeRedis* node : {&one_, &two_}) {
            node->clearAnswers();
            for (const std::string& answer :
                 {"-ASK" + target, std::string("-TRYAGAIN x\r\n"), std::string("-CLUSTERDOWN x\r\n")}) {
                node->answer("EVALSHA", answer);
                node->answer("HMGET", answer);
            }
        }
    }
    std::string url() const { return "redis+cluster" + one_.url().substr(std::string("redis").size()); }
    int connections() { return one_.connections() + two_.connections(); }

private:
    FakeRedis one_;
    FakeRedis two_;
};

TEST(RedisSignal, MayEndTheHandleAtAnyMomentOfRedirections) {
    SignalCluster cluster;
    for (int round = 0; round < 1000; ++round) {
        cluster.prepare();
        roundOf(cluster.url(), 20 + round * 37 % 6000);
    }
    EXPECT_TRUE(workersEnded());
    EXPECT_GT(cluster.connections(), 0);
}

TEST(RedisSignal, MayEndTheHandleAtAnyMomentWithSentinels) {
    FakeRedis sentinel;
    FakeRedis server;
    const std::string port = std::to_string(server.port());
    sentinel.usually("SENTINEL", "*2\r\n$9\r\n127.0.0.1\r\n$" + std::to_string(port.size()) + "\r\n" + port + "\r\n");
    for (int round = 0; round < 500; ++round)
        roundOf("redis+sentinel" + sentinel.url("/m").substr(std::string("redis").size()), 20 + round * 37 % 3000);
    EXPECT_TRUE(workersEnded());
    EXPECT_GT(server.connections(), 0);
}

TEST(RedisSignal, EndsAPauseOfACluster) {
    FakeRedis node;
    node.usually("CLUSTER", "*1\r\n*3\r\n:0\r\n:16383\r\n*2\r\n$0\r\n\r\n:" + std::to_string(node.port()) + "\r\n");
    for (const char* word : {"HMGET", "EVALSHA"})
        node.usually(word, "-TRYAGAIN x\r\n");
    const std::string url = "redis+cluster" + node.url().substr(std::string("redis").size());
    constexpr int longest = 10000000;
    //  The first call that is accepted may be a lookup (HMGET), or an import or a put (EVALSHA).
    const auto received = [&node] { return node.received("HMGET").size() + node.received("EVALSHA").size(); };
    for (int microseconds = 30000; received() == 0 && microseconds < longest; microseconds *= 2)
        roundOf(url, microseconds);
    EXPECT_GE(received(), 1U);
    EXPECT_TRUE(workersEnded());
}

}  // namespace
