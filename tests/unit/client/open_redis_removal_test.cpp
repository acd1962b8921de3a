//  The data of a name that the back end redis finds and removes, with a fake server.
#include "open_fake_redis.h"
#include "open_support.h"

#include <gtest/gtest.h>

namespace {

using namespace opentest;
using namespace rdbopen;

constexpr char tagFields[] = "*3\r\n$1\r\n2\r\n$1\r\n6\r\n$1\r\n1\r\n";
constexpr char valueFields[] = "*3\r\n$1\r\n9\r\n$1\r\n6\r\n$1\r\nv\r\n";

class RedisRemoval : public testing::Test {
protected:
    void SetUp() override {
        backend = backendFor(server.url(), {"u", "secret"});
        ASSERT_EQ(backend->inspector()->openToRead(plainWaiter).reason, "");
        server.clearAnswers();
    }
    void holds(const std::string& tag = tagFields, const std::string& value = valueFields) {
        for (const char* type : {"+hash\r\n", "+hash\r\n", "+list\r\n"})
            server.answer("TYPE", type);
        server.answer("HMGET", tag);
        server.answer("HMGET", value);
        server.answer("LLEN", ":3\r\n");
    }
    Result<Holdings> held(const std::string& name = "host1") { return backend->inspector()->held({name, {}}); }
    Status remove() {
        std::vector<RemovalStep> steps;
        Status status = backend->inspector()->remove(steps);
        EXPECT_EQ(steps.size(), 1U);
        return status;
    }

    FakeRedis server;
    std::unique_ptr<Backend> backend;
};

using Texts = std::vector<std::string>;

TEST_F(RedisRemoval, TheScriptGetsTheValueThatWasShown) {
    holds();
    EXPECT_EQ(textsOfOurs(*held()),
              (Texts{"rdb:tag:{host1}", "rdb:value:{host1} = v", "rdb:history:{host1}, changes: 3"}));
    server.answer("EVAL", "*1\r\n$4\r\ndone\r\n");
    EXPECT_EQ(remove().reason, "");
    const FakeRedis::Command sent = server.received("EVAL").at(0);
    EXPECT_EQ(FakeRedis::Command(sent.begin() + 2, sent.end()),
              (FakeRedis::Command{"3", "rdb:tag:{host1}", "rdb:value:{host1}", "rdb:history:{host1}", "6", "v"}));
}

TEST_F(RedisRemoval, AChangedValueAndAForeignKeyAreRefusals) {
    holds();
    EXPECT_TRUE(held().ok());
    server.answer("EVAL", "*1\r\n$7\r\nchanged\r\n");
    const Status changed = remove();
    EXPECT_EQ(changed.code, errorServerRefused);
    EXPECT_NE(changed.reason.find("has changed since it was shown"), std::string::npos);
    server.answer("EVAL", "*2\r\n$7\r\nforeign\r\n$15\r\nrdb:tag:{host1}\r\n");
    EXPECT_EQ(remove().code, errorServerRefused);
}

TEST_F(RedisRemoval, AKeyOfAnotherProgramKeepsTheOthers) {
    holds("*3\r\n$-1\r\n$-1\r\n$-1\r\n");
    const Result<Holdings> found = held();
    ASSERT_TRUE(found.ok());
    EXPECT_EQ(textsOfOurs(*found), Texts());
    EXPECT_EQ(found->records.at(0).remains, "it belongs to another program");
    EXPECT_EQ(found->records.at(1).remains, "a key beside it belongs to another program");
    EXPECT_TRUE(found->incomplete);
}

TEST_F(RedisRemoval, ALengthThatMayNotBeQueriedIsLeftOut) {
    holds();
    server.clearAnswers();
    for (const char* type : {"+none\r\n", "+none\r\n", "+list\r\n"})
        server.answer("TYPE", type);
    server.answer("LLEN", "-NOPERM no\r\n");
    EXPECT_EQ(textsOfOurs(*held()), (Texts{"rdb:history:{host1}"}));
}

TEST_F(RedisRemoval, AnAnswerThatIsNotUnderstoodIsAFailure) {
    for (const char* type : {":1\r\n", "*0\r\n", "$4\r\nhash\r\n"}) {
        server.answer("TYPE", type);
        EXPECT_EQ(held().status().code, errorBackendFailed) << type;
    }
    holds();
    EXPECT_TRUE(held().ok());
    server.answer("EVAL", ":1\r\n");
    EXPECT_EQ(remove().code, errorBackendFailed);
}

TEST_F(RedisRemoval, ACutConnectionIsAFailure) {
    holds();
    EXPECT_TRUE(held().ok());
    server.answerAndClose("EVAL", "");
    EXPECT_EQ(remove().code, errorBackendFailed);
}

TEST_F(RedisRemoval, ANameThatMakesEmptyBracesIsRefused) {
    EXPECT_EQ(held("}x").status().code, errorBadRequest);
    EXPECT_EQ(server.received("TYPE").size(), 0U);
}

class RedisExamination : public RedisRemoval {
protected:
    std::string reasonFor(const std::string& answer) {
        server.answer("EVAL", answer);
        std::vector<Examination> results;
        const Status status = backend->inspector()->examine({"host1", {}}, results);
        what = results.empty() ? "" : results[0].what;
        return results.size() == 1 ? results[0].status.reason : "no result: " + status.reason;
    }

    std::string what;
};

TEST_F(RedisExamination, MissingPermissionsAreNamed) {
    EXPECT_EQ(reasonFor("*3\r\n$6\r\ndenied\r\n$6\r\n+rpush\r\n$8\r\n+publish\r\n"),
              "the user lacks the permission for a command, its keys or its channel: +rpush +publish");
    EXPECT_EQ(reasonFor("*1\r\n$4\r\ndone\r\n"), "");
    EXPECT_EQ(what, "write the keys of host1");
}

TEST_F(RedisExamination, AServerThatCannotTestPermissionsIsNamedAsSuch) {
    EXPECT_EQ(reasonFor("*1\r\n$7\r\nunknown\r\n"), "");
    EXPECT_EQ(what, "write the keys of host1 (not tested, which needs Redis 7)");
}

TEST_F(RedisExamination, ARefusedScriptAndUnknownAnswersAreReasons) {
    EXPECT_NE(reasonFor("-NOPERM no\r\n").find("NOPERM"), std::string::npos);
    EXPECT_NE(reasonFor("*1\r\n$6\r\ndenied\r\n"), "");
    EXPECT_NE(reasonFor(":1\r\n"), "");
    server.answerAndClose("EVAL", "");
    EXPECT_EQ(reasonFor("").find("no result: "), 0U);
}

TEST_F(RedisExamination, TheScriptGetsTheOptionsOfTheUrl) {
    backend = backendFor(server.url("?expire=900&history=0"), {"u", "secret"});
    ASSERT_EQ(backend->inspector()->openToRead(plainWaiter).reason, "");
    EXPECT_EQ(reasonFor("*1\r\n$4\r\ndone\r\n"), "");
    const FakeRedis::Command sent = server.received("EVAL").at(0);
    EXPECT_EQ(FakeRedis::Command(sent.end() - 4, sent.end()),
              (FakeRedis::Command{"900", "0", "PUBLISH", "rdb:changed:{host1}"}));
}

}  // namespace
