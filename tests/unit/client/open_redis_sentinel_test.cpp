//  redis+sentinel:// with a fake Sentinel and fake servers.
#include "open_fake_redis.h"
#include "open_support.h"

#include <gtest/gtest.h>

namespace {

using namespace opentest;
using namespace rdbopen;

using Words = std::vector<std::string>;

Words wordsSentTo(FakeRedis& server) {
    Words words;
    for (const FakeRedis::Command& command : server.received())
        words.push_back(command.front());
    return words;
}

std::string textOf(const std::string& text) {
    return "$" + std::to_string(text.size()) + "\r\n" + text + "\r\n";
}

std::string masterAnswer(const std::string& host, const std::string& port) {
    return "*2\r\n" + textOf(host) + textOf(port);
}

std::string place(const FakeRedis& server) {
    return "127.0.0.1:" + std::to_string(server.port());
}

class RedisSentinel : public testing::Test {
protected:
    RedisSentinel() {
        sentinel.usually("SENTINEL", masterAnswer("127.0.0.1", std::to_string(server.port())));
        use(place(sentinel) + "/mymaster");
    }
    void use(const std::string& rest, const Credentials& credentials = {"u", "secret"}) {
        backend = backendFor("redis+sentinel://" + rest, credentials);
        ASSERT_NE(backend, nullptr);
    }
    Status open() { return backend->open(plainWaiter); }
    Status put() {
        const RdbSnapshot record = recordOf("host1", "v");
        return backend->tags()->put({&record, 1});
    }

    FakeRedis sentinel;
    FakeRedis server;
    std::unique_ptr<Backend> backend;
};

TEST(RedisSentinelUrl, TakesSentinelsAMasterAndADatabase) {
    for (const char* url : {"redis+sentinel://a/m", "redis+sentinel://a,b:7000,[::1]/m/3?expire=660&history=0",
                            "redis+sentinel://a/m/", "redis+sentinel://a/%41-b.c_d"})
        EXPECT_EQ(makeBackend(url, {"u", "p"}).status().reason, "") << url;
    EXPECT_EQ(backendFor("redis+sentinel://a,[::1]:1/m?expire=900")->label(), "redis+sentinel://a:26379,[::1]:1/m/0");
    EXPECT_EQ(backendFor("redis+sentinel://a/m/3")->label(), "redis+sentinel://a:26379/m/3");
}

TEST(RedisSentinelUrl, RefusesInvalidUrls) {
    for (const char* url :
         {"redis+sentinel://a", "redis+sentinel://a/", "redis+sentinel://a//3", "redis+sentinel://a/m/x",
          "redis+sentinel://a/m/3/4", "redis+sentinel:///m", "redis+sentinel://a/m?ca=/x", "redis+sentinel://a,/m"})
        EXPECT_EQ(makeBackend(url, {"u", "p"}).status().code, errorBadUrl) << url;
    EXPECT_EQ(makeBackend("redis+sentinel://a", {"u", "p"}).status().reason,
              "malformed url: the path does not begin with the name of a master");
}

TEST(RedisSentinelUrl, WithASingleSentinelGetsAWarning) {
    const auto adviceOn = [](const std::string& text) {
        const Result<Url> url = parseUrl(text);
        std::vector<Advice> advice;
        (*moduleForUrl(*url))->advise({*url, {"u", "p"}, "rdburl", "rdbpswd", "host1", {}}, advice);
        return advice;
    };
    ASSERT_EQ(adviceOn("redis+sentinel://a/m").size(), 1U);
    EXPECT_EQ(
        adviceOn("redis+sentinel://a/m")[0].text,
        "rdburl: it names one Sentinel: while it is down, the service cannot connect after a start; name several, "
        "separated by commas");
    EXPECT_TRUE(adviceOn("redis+sentinel://a,b/m").empty());
}

TEST_F(RedisSentinel, NamesTheMasterAndGetsNoLogin) {
    use(place(sentinel) + "/mymaster/3");
    ASSERT_EQ(open().reason, "");
    EXPECT_EQ(sentinel.received(),
              (std::vector<FakeRedis::Command>{{"SENTINEL", "get-master-addr-by-name", "mymaster"}}));
    EXPECT_EQ(wordsSentTo(server), (Words{"AUTH", "CLIENT", "PING", "SELECT", "ROLE"}));
    ASSERT_EQ(put().reason, "");
    EXPECT_EQ(server.received("EVALSHA").size(), 1U);
    EXPECT_EQ(backend->probe().reason, "");
    EXPECT_TRUE(eventually([this] { return sentinel.openConnections() == 0; }));
    EXPECT_EQ(server.connections(), 1);
    EXPECT_GE(backend->watchedDescriptor(), 0);
}

TEST_F(RedisSentinel, ThatCannotAnswerIsNamedWithItsReason) {
    const struct {
        std::string answer;
        const char* reason;
    } rows[] = {
        {"*-1\r\n", "the Sentinel does not know a master mymaster"},
        {"$-1\r\n", "the Sentinel does not know a master mymaster"},
        {"-NOAUTH Authentication required.\r\n",
         "the Sentinel requires a login, and gets none: its user default needs nopass and the permission "
         "+sentinel|get-master-addr-by-name"},
        {"-ERR unknown command 'SENTINEL', with args\r\n", "the server is not a Sentinel"},
        {"-NOPERM x\r\n", "refused: the user has not every permission that is needed (NOPERM)"},
        {"-ERR odd\r\n", "SENTINEL refused: ERR odd"},
        {"+OK\r\n", "the server's answer to SENTINEL is not understood"},
        {"*1\r\n$1\r\nh\r\n", "the server's answer to SENTINEL is not understood"},
        {"*2\r\n:1\r\n:2\r\n", "the server's answer to SENTINEL is not understood"},
        {masterAnswer("h", "0"), "the Sentinel names no usable address of the master"},
        {masterAnswer("", "1"), "the Sentinel names no usable address of the master"},
        {masterAnswer("a,b", "1"), "the Sentinel names no usable address of the master"},
        {masterAnswer("u@h", "1"), "the Sentinel names no usable address of the master"},
        {masterAnswer("h", "99999"), "the Sentinel names no usable address of the master"},
        {masterAnswer(std::string(100000, 'h'), "1"), "the Sentinel names no usable address of the master"},
    };
    for (const auto& row : rows) {
        sentinel.answer("SENTINEL", row.answer);
        const Status outcome = open();
        EXPECT_EQ(outcome.code, errorBackendFailed) << row.reason;
        EXPECT_EQ(outcome.reason, place(sentinel) + ": " + row.reason);
    }
}

TEST_F(RedisSentinel, ThatNamesADeadMasterOrAReplicaIsFollowedByTheNext) {
    FakeRedis other;
    other.usually("SENTINEL", masterAnswer("127.0.0.1", std::to_string(server.port())));
    use("127.0.0.1:1," + place(sentinel) + "," + place(other) + "/m");
    FakeRedis replica;
    replica.usually("ROLE", "*5\r\n$5\r\nslave\r\n$1\r\nh\r\n:1\r\n$9\r\nconnected\r\n:1\r\n");
    for (const std::string& port : {std::string("1"), std::to_string(replica.port())}) {
        sentinel.usually("SENTINEL", masterAnswer("127.0.0.1", port));
        ASSERT_EQ(open().reason, "") << port;
        ASSERT_EQ(put().reason, "");
        backend->close();
        use("127.0.0.1:1," + place(sentinel) + "," + place(other) + "/m");
    }
    EXPECT_EQ(replica.connections(), 1);
    other.usually("SENTINEL", "*-1\r\n");
    const Status outcome = open();
    EXPECT_EQ(outcome.code, errorBackendFailed);
    EXPECT_EQ(outcome.reason, "127.0.0.1:1: cannot be reached: " + errorText(ECONNREFUSED) + "; " + place(sentinel) +
                                  ": the master that it names: " + place(replica) +
                                  ": the server is not a primary but a replica; " + place(other) +
                                  ": the Sentinel does not know a master m");
}

TEST_F(RedisSentinel, ThatLedToTheMasterIsAskedFirst) {
    FakeRedis other;
    other.usually("SENTINEL", masterAnswer("127.0.0.1", std::to_string(server.port())));
    use(place(sentinel) + "," + place(other) + "/m");
    sentinel.answer("SENTINEL", "*-1\r\n");
    ASSERT_EQ(open().reason, "");
    backend->close();
    ASSERT_EQ(open().reason, "");
    EXPECT_EQ(sentinel.received("SENTINEL").size(), 1U);
    EXPECT_EQ(other.received("SENTINEL").size(), 2U);
}

TEST_F(RedisSentinel, IsAskedAgainAfterAFailOver) {
    FakeRedis promoted;
    ASSERT_EQ(open().reason, "");
    server.answer("EVALSHA", "-READONLY You can't write against a read only replica.\r\n");
    const Status outcome = put();
    EXPECT_EQ(outcome.code, errorBackendFailed);
    EXPECT_EQ(outcome.reason, "refused: the server is a read-only replica (READONLY)");
    backend->close();
    sentinel.usually("SENTINEL", masterAnswer("127.0.0.1", std::to_string(promoted.port())));
    ASSERT_EQ(open().reason, "");
    ASSERT_EQ(put().reason, "");
    EXPECT_EQ(promoted.received("EVALSHA").size(), 1U);
}

TEST_F(RedisSentinel, AMasterThatDoesNotReportItsRoleIsNotUsed) {
    for (const std::pair<std::string, std::string>& row :
         {std::pair<std::string, std::string>{"-NOPERM x\r\n",
                                              "refused: the user has not every permission that is needed (NOPERM)"},
          {"*0\r\n", "the server's answer to ROLE is not understood"},
          {"*1\r\n:1\r\n", "the server's answer to ROLE is not understood"},
          {"+master\r\n", "the server's answer to ROLE is not understood"}}) {
        server.answer("ROLE", row.first);
        EXPECT_EQ(open().reason, place(sentinel) + ": the master that it names: " + place(server) + ": " + row.second);
    }
}

TEST_F(RedisSentinel, ItsAnswerTruncatedAnywhereFails) {
    const std::string answer = masterAnswer("127.0.0.1", std::to_string(server.port()));
    for (std::size_t length = 0; length < answer.size(); ++length) {
        sentinel.answerAndClose("SENTINEL", answer.substr(0, length));
        EXPECT_EQ(open().code, errorBackendFailed) << length;
    }
    EXPECT_EQ(server.connections(), 0);
}

TEST_F(RedisSentinel, ClosingClosesAllConnections) {
    const std::size_t before = entriesOf("/proc/self/fd");
    ASSERT_EQ(open().reason, "");
    backend->close();
    EXPECT_EQ(backend->watchedDescriptor(), -1);
    EXPECT_EQ(backend->probe().reason, place(server) + ": there is no connection");
    EXPECT_TRUE(eventually([&] {
        return sentinel.openConnections() + server.openConnections() == 0 && entriesOf("/proc/self/fd") == before;
    }));
}

}  // namespace
