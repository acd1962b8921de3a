//  redis:// with several servers: the back end uses the first server that is a primary and accepts writes. After a
//  disconnect it first tries the server that served last.
#include "open_fake_redis.h"
#include "open_support.h"

#include <gtest/gtest.h>

namespace {

using namespace opentest;
using namespace rdbopen;

constexpr char replicaRole[] = "*5\r\n$5\r\nslave\r\n$1\r\nh\r\n:1\r\n$9\r\nconnected\r\n:1\r\n";

class RedisList : public testing::Test {
protected:
    RedisList() { use(of(first) + "," + of(second)); }
    static std::string of(const FakeRedis& server) { return "127.0.0.1:" + std::to_string(server.port()); }
    void use(const std::string& servers) { backend = backendFor("redis://" + servers + "/3", {"u", "secret"}); }
    Status open() { return backend->open(plainWaiter); }
    Status put() {
        const RdbSnapshot record = recordOf("host1", "v");
        return backend->tags()->put({&record, 1});
    }
    static std::size_t puts(FakeRedis& server) { return server.received("EVALSHA").size(); }

    FakeRedis first;
    FakeRedis second;
    std::unique_ptr<Backend> backend;
};

TEST_F(RedisList, TheFirstServerServesWhileItCan) {
    EXPECT_EQ(backend->label(), "redis://" + of(first) + "," + of(second) + "/3");
    ASSERT_EQ(open().reason, "");
    ASSERT_EQ(put().reason, "");
    EXPECT_EQ(puts(first), 1U);
    EXPECT_EQ(second.connections(), 0);
}

TEST_F(RedisList, ServersOfAListMustReportTheirRoleAndASingleServerNeedNot) {
    ASSERT_EQ(open().reason, "");
    EXPECT_EQ(first.received("ROLE").size(), 1U);
    use(of(second));
    second.usually("ROLE", replicaRole);
    ASSERT_EQ(open().reason, "");
    EXPECT_EQ(second.received("ROLE").size(), 0U);
}

TEST_F(RedisList, AReplicaOrAServerThatCannotBeReachedIsSkipped) {
    use("127.0.0.1:1," + of(first) + "," + of(second));
    first.usually("ROLE", replicaRole);
    ASSERT_EQ(open().reason, "");
    ASSERT_EQ(put().reason, "");
    EXPECT_EQ(puts(first), 0U);
    EXPECT_EQ(puts(second), 1U);
}

TEST_F(RedisList, WithoutAUsableServerTheReasonNamesTheFailureOfEach) {
    use("127.0.0.1:1," + of(first) + "," + of(second));
    first.usually("ROLE", replicaRole);
    second.answer("AUTH", "-WRONGPASS x\r\n");
    const Status outcome = open();
    EXPECT_EQ(outcome.code, errorBackendFailed);
    EXPECT_EQ(outcome.reason, "127.0.0.1:1: cannot be reached: " + errorText(ECONNREFUSED) + "; " + of(first) +
                                  ": the server is not a primary but a replica; " + of(second) +
                                  ": AUTH refused: user or password is wrong, or the user is switched off (WRONGPASS)");
}

TEST_F(RedisList, AServerThatTakesNoWriteIsReplacedWithinTheRequest) {
    for (const char* word : {"READONLY", "MASTERDOWN", "LOADING", "OOM", "MISCONF", "NOREPLICAS"}) {
        use(of(first) + "," + of(second));
        ASSERT_EQ(open().reason, "");
        const std::size_t before = puts(second);
        first.answer("EVALSHA", std::string("-") + word + " x script: 0, on @user_script:1.\r\n");
        EXPECT_EQ(put().reason, "") << word;
        EXPECT_EQ(put().reason, "") << word;
        EXPECT_EQ(puts(second) - before, 2U) << word;
        backend->close();
    }
}

TEST_F(RedisList, AfterADisconnectTheServerThatServedLastIsTriedFirst) {
    ASSERT_EQ(open().reason, "");
    first.answer("EVALSHA", "-READONLY x\r\n");
    ASSERT_EQ(put().reason, "");
    backend->close();
    const int before = first.connections();
    ASSERT_EQ(open().reason, "");
    ASSERT_EQ(put().reason, "");
    EXPECT_EQ(first.connections(), before);
    EXPECT_EQ(puts(second), 2U);
}

TEST_F(RedisList, IfNoServerTakesTheWriteTheReasonNamesTheFailureOfEach) {
    ASSERT_EQ(open().reason, "");
    first.answer("EVALSHA", "-OOM x\r\n");
    second.answer("EVALSHA", "-MISCONF x\r\n");
    const Status outcome = put();
    EXPECT_EQ(outcome.code, errorBackendFailed);
    EXPECT_EQ(outcome.reason, of(first) + ": refused: the server's memory limit is reached (OOM); " + of(second) +
                                  ": refused: the server cannot save to its disk (MISCONF)");
}

TEST_F(RedisList, ARefusalThatOtherServersWouldRepeatKeepsTheConnection) {
    ASSERT_EQ(open().reason, "");
    first.answer("EVALSHA", "-NOPERM x\r\n");
    EXPECT_EQ(put().code, errorServerRefused);
    EXPECT_EQ(second.connections(), 0);
    use(of(first));
    ASSERT_EQ(open().reason, "");
    first.answer("EVALSHA", "-OOM x\r\n");
    EXPECT_EQ(put().code, errorServerRefused);
    EXPECT_EQ(put().code, 0);
}

}  // namespace
