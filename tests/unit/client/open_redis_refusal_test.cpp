//  The back end redis: requests that the server refuses, data of other programs, and answers after which the connection
//  has to be opened again.
#include "open_fake_redis.h"
#include "open_support.h"

#include <gtest/gtest.h>

namespace {

using namespace opentest;
using namespace rdbopen;

class RedisRefusals : public testing::Test {
protected:
    RedisRefusals() { backend = backendFor(server.url("/2?expire=900"), {"writer", "secret"}); }
    void SetUp() override { ASSERT_EQ(backend->open(plainWaiter).code, 0); }
    Status put() {
        const RdbSnapshot record = recordOf("host1", "v");
        return backend->tags()->put({&record, 1});
    }
    FakeRedis server;
    std::unique_ptr<Backend> backend;
};

TEST_F(RedisRefusals, ATagOfAnotherProgramIsRefused) {
    for (const char* hash : {"*3\r\n$3\r\n256\r\n$1\r\n6\r\n$1\r\n1\r\n", "*3\r\n$2\r\n-1\r\n$1\r\n6\r\n$1\r\n1\r\n",
                             "*3\r\n$0\r\n\r\n$1\r\n6\r\n$1\r\n1\r\n", "*3\r\n$1\r\n2\r\n$2\r\n6x\r\n$1\r\n1\r\n",
                             "*3\r\n$1\r\n2\r\n$1\r\n6\r\n$-1\r\n", "*3\r\n:2\r\n:6\r\n:1\r\n"}) {
        server.answer("HMGET", hash);
        RdbTag tag = tagNamed("host1");
        const Status outcome = backend->tags()->get(tag);
        EXPECT_EQ(outcome.code, errorServerRefused) << hash;
        EXPECT_EQ(outcome.reason, "rdb:tag:{host1} is somebody else's and stays as it is");
    }
}

TEST_F(RedisRefusals, AValueOfAnotherProgramIsRefused) {
    for (const char* hash : {"*3\r\n$2\r\n-1\r\n$1\r\n6\r\n$1\r\nv\r\n", "*3\r\n$-1\r\n$1\r\n6\r\n$1\r\nv\r\n",
                             "*3\r\n$1\r\n1\r\n$3\r\n256\r\n$1\r\nv\r\n", "*3\r\n$1\r\n1\r\n$1\r\n6\r\n$-1\r\n"}) {
        server.answer("HMGET", hash);
        const Status outcome = backend->tags()->checkValue(recordOf("host1", "v"));
        EXPECT_EQ(outcome.code, errorServerRefused) << hash;
        EXPECT_EQ(outcome.reason, "rdb:value:{host1} is somebody else's and stays as it is");
    }
}

TEST_F(RedisRefusals, AnErrorNamesItsCauseWhereverTheServerPutsIt) {
    const struct {
        const char* answer;
        const char* words;
    } rows[] = {
        {"OOM command not allowed", "refused: the server's memory limit is reached (OOM)"},
        {"MISCONF Redis is configured", "refused: the server cannot save to its disk (MISCONF)"},
        {"LOADING Redis", "refused: the server is still loading its data (LOADING)"},
        {"BUSY Redis is busy", "refused: the server is busy with a script (BUSY)"},
        {"NOREPLICAS Not enough", "refused: too few replicas of the server are connected (NOREPLICAS)"},
        {"NOPERM no", "refused: the user has not every permission that is needed (NOPERM)"},
        {"MOVED 1 h:1",
         "refused: the server is part of a cluster: the scheme for it is redis+cluster or rediss+cluster (MOVED)"},
        {"CLUSTERDOWN Hash slot", "refused: the cluster is down, or has no master for the name's keys (CLUSTERDOWN)"},
        {"WRONGTYPE Operation", "refused: a key of another type is in the way (WRONGTYPE)"},
        {"ERR something", "put refused: ERR something"},
    };
    const std::string hash(40, 'a');
    for (const auto& row : rows)
        for (const std::string& answer :
             {std::string(row.answer), row.answer + (" script: " + hash) + ", on @user_script:12.",
              "ERR Error running script (call to f_" + hash + "): @user_script:12: " + row.answer,
              "ERR Error running script (call to f_" + hash + "): @user_script:12: @user_script: 12: -" + row.answer}) {
            server.answer("EVALSHA", "-" + answer + "\r\n");
            const Status outcome = put();
            EXPECT_EQ(outcome.code, errorServerRefused) << answer;
            EXPECT_EQ(outcome.reason, row.words) << answer;
        }
    EXPECT_EQ(backend->probe().code, 0);
    EXPECT_EQ(server.connections(), 1);
}

TEST_F(RedisRefusals, AScriptWithoutAPermissionOrACommandIsExplained) {
    const std::string before = "-ERR Error running script (call to f_0): @user_script:9: @user_script: 9: ";
    const std::string denied = "refused: the user has not every permission that is needed (NOPERM)";
    const std::string renamed = "put refused: a command is renamed or switched off at this server (";
    const std::pair<std::string, std::string> rows[] = {
        {before + "The user executing the script can't run this command or subcommand", denied},
        {before + "The user executing the script can't publish to the channel mentioned in the command", denied},
        {before + "Unknown Redis command called from Lua script",
         renamed + "Unknown Redis command called from Lua script)"},
        {"-ERR The user executing the script can't run this command or subcommand script: 0, on @user_script:9.",
         denied},
        {"-ERR Invalid command passed to redis.acl_check_cmd() script: 0, on @user_script:9.",
         renamed + "ERR Invalid command passed to redis.acl_check_cmd)"},
        {"-ERR Unknown Redis command called from script script: 0, on @user_script:9.",
         renamed + "ERR Unknown Redis command called from script)"},
    };
    for (const auto& [answer, words] : rows) {
        server.answer("EVALSHA", answer + "\r\n");
        EXPECT_EQ(put().reason, words);
    }
}

TEST_F(RedisRefusals, AnErrorThatEndsEarlyIsNotQuoted) {
    for (const char* answer :
         {"ERR Error running script (call to f_", "ERR Error running script (call to f_0): @user_script:",
          "ERR Error running script (call to f_0): @user_script:1: ", ""}) {
        server.answer("EVALSHA", std::string("-") + answer + "\r\n");
        EXPECT_EQ(put().reason, "put refused: the answer is none of the usual ones") << answer;
    }
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
    server.answer("HMGET", quoting);
    RdbTag tag = tagNamed("host1");
    expectWithout(backend->tags()->get(tag), "HMGET refused: ERR odd: AUTH ");
    server.answer("EVALSHA", quoting);
    expectWithout(backend->tags()->import(usableTag("host1")), "import refused: ERR odd: AUTH ");
    server.answer("EVALSHA", "-ERR Error running script (call to f_0): @user_script:1: " + quoting.substr(1));
    expectWithout(backend->tags()->import(usableTag("host1")), "import refused: ERR odd: AUTH ");
    server.answer("PING", quoting);
    expectWithout(backend->probe(), "PING refused: ERR odd: AUTH ");
}

TEST_F(RedisRefusals, AServerThatRequiresTlsIsReportedAsSuch) {
    backend->close();
    server.answerAndClose("AUTH", std::string("\x15\x03\x03\x00\x02\x02\x46", 7));
    const Status outcome = backend->open(plainWaiter);
    EXPECT_EQ(outcome.code, errorBackendFailed);
    EXPECT_EQ(outcome.reason, "the server speaks TLS only at this port: the scheme for it is rediss");
    backend->close();
    ASSERT_EQ(backend->open(plainWaiter).code, 0);
    server.answer("PING", "\x15\x03\x03");  // TLS bytes after a correct first answer
    EXPECT_EQ(backend->probe().reason, "the server does not speak the Redis protocol");
}

TEST_F(RedisRefusals, ALostLoginIsAFailedConnection) {
    server.answer("PING", "-NOAUTH Authentication required.\r\n");
    EXPECT_EQ(backend->probe().code, errorBackendFailed);
    server.answer("HMGET", "-NOAUTH Authentication required.\r\n");
    RdbTag tag = tagNamed("host1");
    EXPECT_EQ(backend->tags()->get(tag).code, errorBackendFailed);
}

TEST_F(RedisRefusals, AServerThatHasBecomeAReplicaIsAFailedConnection) {
    const std::string readOnly = "refused: the server is a read-only replica (READONLY)";
    const std::string masterDown = "refused: the server is a replica that has lost its master (MASTERDOWN)";
    const struct {
        const char* answer;
        std::string words;
    } rows[] = {
        {"-READONLY You can't write\r\n", readOnly},
        {"-READONLY You can't write script: 0, on @user_script:1.\r\n", readOnly},
        {"-ERR Error running script (call to f_0): @user_script:1: @user_script: 1: -READONLY You can't\r\n", readOnly},
        {"-MASTERDOWN Link\r\n", masterDown},
        {"-ERR Error running script (call to f_0): @user_script:1: @user_script: 1: -MASTERDOWN Link\r\n", masterDown},
    };
    for (const auto& row : rows) {
        server.answer("EVALSHA", row.answer);
        const Status outcome = put();
        EXPECT_EQ(outcome.code, errorBackendFailed) << row.answer;
        EXPECT_EQ(outcome.reason, row.words);
        backend->close();
        server.clearAnswers();
        ASSERT_EQ(backend->open(plainWaiter).code, 0);
    }
    server.answer("PING", "-MASTERDOWN Link\r\n");
    EXPECT_EQ(backend->probe().code, errorBackendFailed);
}

TEST_F(RedisRefusals, TheStatusOfAWrongServerAllowsAnotherAddress) {
    const std::pair<std::string, bool> rows[] = {{"READONLY", true}, {"MASTERDOWN", true}, {"LOADING", true},
                                                 {"NOPERM", false},  {"OOM", false},       {"MISCONF", false}};
    for (const auto& [word, wrong] : rows) {
        server.answer("EVALSHA", "-" + word + " x script: 0, on @user_script:1.\r\n");
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
    } rows[] = {{"EVALSHA", ":1\r\n"},
                {"EVALSHA", "+done\r\n"},
                {"EVALSHA", "$4\r\ndone\r\n"},
                {"EVALSHA", "*0\r\n"},
                {"EVALSHA", "*-1\r\n"},
                {"EVALSHA", "*1\r\n+done\r\n"},
                {"EVALSHA", "*1\r\n$4\r\nDone\r\n"},
                {"EVALSHA", "*1\r\n$7\r\nforeign\r\n"},
                {"EVALSHA", "*2\r\n$4\r\ndone\r\n$1\r\nk\r\n"},
                {"EVALSHA", "*4\r\n$6\r\nno-tag\r\n$1\r\n2\r\n$1\r\n6\r\n$1\r\n1\r\n"},
                {"EVALSHA", "*2\r\n$7\r\nforeign\r\n:1\r\n"},
                {"HMGET", "*2\r\n$-1\r\n$-1\r\n"},
                {"HMGET", "$-1\r\n"}};
    for (const auto& row : rows) {
        server.answer(row.word, row.answer);
        RdbTag tag = usableTag("host1");
        const bool query = std::string_view(row.word) == "HMGET";
        const Status outcome = query ? backend->tags()->get(tag) : backend->tags()->import(tag);
        EXPECT_EQ(outcome.code, errorBackendFailed) << row.word << row.answer;
        EXPECT_EQ(outcome.reason,
                  std::string("the server's answer to ") + (query ? "HMGET" : "import") + " is not understood");
        backend->close();
        ASSERT_EQ(backend->open(plainWaiter).code, 0);
    }
}

}  // namespace
