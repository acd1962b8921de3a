//  The back end redis: requests that the server refuses, and data of other programs. A refused request writes nothing,
//  and the connection stays open.
#include "open_fake_redis.h"
#include "open_support.h"

#include <gtest/gtest.h>

namespace {

using namespace opentest;
using namespace rdbopen;

class RedisRefusals : public testing::Test {
protected:
    RedisRefusals() { backend = backendFor(server.url("/2?expire=900"), {"u", "secret"}); }
    void SetUp() override { ASSERT_EQ(backend->open(plainWaiter).code, 0); }
    Status put() {
        const RdbSnapshot record = recordOf("host1", "v");
        return backend->tags()->put({&record, 1});
    }
    void holdTag() {
        server.answer("HLEN", ":4\r\n");
        server.answer("HMGET", "*3\r\n$1\r\n2\r\n$1\r\n6\r\n$1\r\n1\r\n");
    }
    void expectUntouchedAndUsable() {
        EXPECT_EQ(server.received("EXEC").size(), 0U);
        EXPECT_EQ(server.received("HSET").size(), 0U);
        EXPECT_EQ(backend->probe().code, 0);
        EXPECT_EQ(server.connections(), 1);
    }

    FakeRedis server;
    std::unique_ptr<Backend> backend;
};

TEST_F(RedisRefusals, AfterAnErrorToAReadingCommandNothingIsWritten) {
    for (const char* word : {"WATCH", "TIME", "HLEN", "HMGET", "TYPE", "MULTI"}) {
        server.answer(word, "-NOPERM no\r\n");
        const Status outcome = backend->tags()->import(usableTag("host1"));
        EXPECT_EQ(outcome.code, errorServerRefused) << word;
        EXPECT_EQ(outcome.reason, "refused: the user has not every permission that is needed (NOPERM)");
    }
    expectUntouchedAndUsable();
    EXPECT_EQ(server.received("DISCARD").size(), 5U);
    EXPECT_EQ(server.received("UNWATCH").size(), 1U);  // MULTI itself was refused, so UNWATCH is needed
}

TEST_F(RedisRefusals, AKeyOfAnotherTypeIsUnchanged) {
    for (const char* word : {"HLEN", "HMGET"}) {
        server.answer(word, "-WRONGTYPE Operation against a key\r\n");
        const Status outcome = put();
        EXPECT_EQ(outcome.code, errorServerRefused);
        EXPECT_EQ(outcome.reason, std::string(word) + " refused: a key of another type is in the way (WRONGTYPE)");
    }
    server.answer("TYPE", "+list\r\n");
    EXPECT_EQ(backend->tags()->import(usableTag("host1")).reason,
              "rdb:history:host1 is somebody else's and stays as it is");
    expectUntouchedAndUsable();
}

TEST_F(RedisRefusals, AHashWithOtherFieldsIsUnchanged) {
    server.answer("HLEN", ":7\r\n");
    const Status tag = backend->tags()->import(usableTag("host1"));
    EXPECT_EQ(tag.code, errorServerRefused);
    EXPECT_EQ(tag.reason, "rdb:tag:host1 is somebody else's and stays as it is");
    holdTag();
    server.answer("HLEN", ":7\r\n");
    const Status value = put();
    EXPECT_EQ(value.code, errorServerRefused);
    EXPECT_EQ(value.reason, "rdb:value:host1 is somebody else's and stays as it is");
    expectUntouchedAndUsable();
}

TEST_F(RedisRefusals, AnInvalidDefinitionBelongsToAnotherProgram) {
    for (const char* hash : {"*3\r\n$3\r\n256\r\n$1\r\n6\r\n$1\r\n1\r\n", "*3\r\n$2\r\n-1\r\n$1\r\n6\r\n$1\r\n1\r\n",
                             "*3\r\n$0\r\n\r\n$1\r\n6\r\n$1\r\n1\r\n", "*3\r\n$1\r\n2\r\n$2\r\n6x\r\n$1\r\n1\r\n",
                             "*3\r\n$1\r\n2\r\n$1\r\n6\r\n$-1\r\n", "*3\r\n:2\r\n:6\r\n:1\r\n"}) {
        server.answer("HLEN", ":3\r\n");
        server.answer("HMGET", hash);
        RdbTag tag = tagNamed("host1");
        EXPECT_EQ(backend->tags()->get(tag).code, errorServerRefused) << hash;
    }
}

TEST_F(RedisRefusals, AnErrorToAQueuedCommandNamesItsCause) {
    const struct {
        const char* answer;
        const char* words;
    } rows[] = {
        {"-OOM command not allowed\r\n", "refused: the server's memory limit is reached (OOM)"},
        {"-MISCONF Redis is configured\r\n", "refused: the server cannot save to its disk (MISCONF)"},
        {"-LOADING Redis\r\n", "refused: the server is still loading its data (LOADING)"},
        {"-NOPERM no\r\n", "refused: the user has not every permission that is needed (NOPERM)"},
        {"-MOVED 1 h:1\r\n", "refused: the server is part of a cluster, which is not supported (MOVED)"},
        {"-ERR something\r\n", "XADD refused: ERR something"},
    };
    for (const auto& row : rows) {
        holdTag();
        server.answer("XADD", row.answer);
        server.answer("EXEC", "-EXECABORT Transaction discarded because of previous errors.\r\n");
        const Status outcome = put();
        EXPECT_EQ(outcome.code, errorServerRefused) << row.answer;
        EXPECT_EQ(outcome.reason, row.words);
    }
    EXPECT_EQ(backend->probe().code, 0);
}

TEST_F(RedisRefusals, AQuotedAnswerOmitsUserAndPassword) {
    const std::string secret = "hunter2-password";
    backend = backendFor(server.url(), {"somebody", secret});
    const std::string quoting = "-ERR odd: AUTH somebody " + secret + "\r\n";
    const auto expectWithout = [](const Status& outcome, const std::string& words) {
        EXPECT_NE(outcome.code, errorNone);
        EXPECT_EQ(outcome.reason, words);
    };
    server.answer("AUTH", quoting);
    expectWithout(backend->open(plainWaiter), "AUTH refused: the answer is none of the usual ones");
    backend->close();
    server.answer("PING", quoting);
    expectWithout(backend->open(plainWaiter), "PING refused: ERR odd: AUTH ");
    backend->close();
    ASSERT_EQ(backend->open(plainWaiter).code, 0);
    server.answer("HLEN", quoting);
    expectWithout(backend->tags()->import(usableTag("host1")), "HLEN refused: ERR odd: AUTH ");
    server.answer("EXEC", "*1\r\n" + quoting);
    expectWithout(backend->tags()->import(usableTag("host1")), "HSET refused: ERR odd: AUTH ");
    server.answer("PING", quoting);
    expectWithout(backend->probe(), "PING refused: ERR odd: AUTH ");
}

TEST_F(RedisRefusals, AServerThatRequiresTlsIsReportedAsSuch) {
    backend->close();
    server.answerAndClose("AUTH", std::string("\x15\x03\x03\x00\x02\x02\x46", 7));
    const Status outcome = backend->open(plainWaiter);
    EXPECT_EQ(outcome.code, errorBackendFailed);
    EXPECT_EQ(
        outcome.reason,
        "the server speaks TLS only at this port, which this back end does not: it needs a tunnel or a plain port");
    backend->close();
    ASSERT_EQ(backend->open(plainWaiter).code, 0);
    server.answer("PING", "\x15\x03\x03");  // after the first answer such bytes do not mean TLS
    EXPECT_EQ(backend->probe().reason, "the server does not speak the Redis protocol");
}

TEST_F(RedisRefusals, AnErrorInTheAnswerOfATransactionIsARefusal) {
    holdTag();
    server.answer("EXEC", "*6\r\n:1\r\n$3\r\n1-1\r\n-NOPERM ACLs rules changed\r\n:1\r\n:1\r\n:0\r\n");
    const Status outcome = put();
    EXPECT_EQ(outcome.code, errorServerRefused);
    EXPECT_EQ(outcome.reason, "refused: the user has not every permission that is needed (NOPERM)");
}

TEST_F(RedisRefusals, ALostLoginIsAFailedConnection) {
    server.answer("PING", "-NOAUTH Authentication required.\r\n");
    EXPECT_EQ(backend->probe().code, errorBackendFailed);
    server.answer("HLEN", "-NOAUTH Authentication required.\r\n");
    RdbTag tag = tagNamed("host1");
    EXPECT_EQ(backend->tags()->get(tag).code, errorBackendFailed);
}

TEST_F(RedisRefusals, AServerThatHasBecomeAReplicaIsAFailedConnection) {
    const std::string readOnly = "refused: the server is a read-only replica (READONLY)";
    const std::string masterDown = "refused: the server is a replica that has lost its master (MASTERDOWN)";
    const struct {
        const char* word;
        const char* answer;
        std::string words;
    } rows[] = {
        {"XADD", "-READONLY You can't write\r\n", readOnly},
        {"XADD", "-MASTERDOWN Link\r\n", masterDown},
        {"HLEN", "-MASTERDOWN Link\r\n", masterDown},
        {"EXEC", "-EXECABORT Transaction discarded because of: READONLY You can't write\r\n", readOnly},
        {"EXEC", "-EXECABORT Transaction discarded because of: MASTERDOWN Link\r\n", masterDown},
    };
    for (const auto& row : rows) {
        holdTag();
        server.answer(row.word, row.answer);
        const Status outcome = put();
        EXPECT_EQ(outcome.code, errorBackendFailed) << row.word << row.answer;
        EXPECT_EQ(outcome.reason, row.words);
        backend->close();
        server.clearAnswers();
        ASSERT_EQ(backend->open(plainWaiter).code, 0);
    }
    server.answer("PING", "-MASTERDOWN Link\r\n");
    EXPECT_EQ(backend->probe().code, errorBackendFailed);
}

TEST_F(RedisRefusals, AWrongServerCausesAnAttemptAtAnotherAddress) {
    const std::pair<std::string, bool> rows[] = {{"READONLY", true}, {"MASTERDOWN", true}, {"LOADING", true},
                                                 {"NOPERM", false},  {"OOM", false},       {"MISCONF", false}};
    for (const auto& [word, wrong] : rows) {
        holdTag();
        server.answer("XADD", "-" + word + " x\r\n");
        server.answer("EXEC", "-EXECABORT Transaction discarded because of previous errors.\r\n");
        EXPECT_EQ(put().failover, wrong) << word;
        backend->close();
        server.clearAnswers();
        ASSERT_EQ(backend->open(plainWaiter).code, 0);
    }
}

TEST_F(RedisRefusals, AnAnswerOfTheWrongKindFailsTheConnection) {
    const struct {
        const char* word;
        const char* answer;
    } rows[] = {{"WATCH", ":1\r\n"},
                {"MULTI", "+NO\r\n"},
                {"TIME", "*1\r\n$1\r\n1\r\n"},
                {"TIME", "+1\r\n"},
                {"TIME", "*2\r\n:1\r\n:2\r\n"},
                {"TIME", "*2\r\n$1\r\n1\r\n$7\r\n1000000\r\n"},
                {"HLEN", "+1\r\n"},
                {"HMGET", "*2\r\n$-1\r\n$-1\r\n"},
                {"HMGET", "$-1\r\n"},
                {"TYPE", "$4\r\nnone\r\n"},
                {"EXEC", "*1\r\n:1\r\n"},
                {"EXEC", "+OK\r\n"}};
    for (const auto& row : rows) {
        server.answer(row.word, row.answer);
        const Status outcome = backend->tags()->import(usableTag("host1"));
        EXPECT_EQ(outcome.code, errorBackendFailed) << row.word << row.answer;
        EXPECT_EQ(outcome.reason, "the server's answer to " + std::string(row.word) + " is not understood");
        backend->close();
        ASSERT_EQ(backend->open(plainWaiter).code, 0);
    }
}

TEST_F(RedisRefusals, ATransactionThatCannotBeDiscardedFailsTheConnection) {
    server.answer("DISCARD", "-ERR no\r\n");
    EXPECT_EQ(put().code, errorBackendFailed);
}

}  // namespace
