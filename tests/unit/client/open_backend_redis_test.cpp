//  The back end redis with a fake server. Each test determines the server's answers.
#include "redis/backend.h"

#include "open_fake_redis.h"
#include "open_support.h"

#include <gtest/gtest.h>

namespace {

using namespace opentest;
using namespace rdbopen;

constexpr char usableHash[] = "*3\r\n$1\r\n2\r\n$1\r\n6\r\n$1\r\n1\r\n";

std::string makeReason(const std::string& url) {
    const BackendResult backend = makeBackend(url, {"u", "p"});
    EXPECT_TRUE(backend.ok() || backend.status().code == errorBadUrl) << url;
    return backend.status().reason;
}

//  Returns the server's answer to HMGET for this current value.
std::string valueHash(const std::string& time, const std::string& value) {
    return "*3\r\n$" + std::to_string(time.size()) + "\r\n" + time + "\r\n$1\r\n6\r\n$" + std::to_string(value.size()) +
           "\r\n" + value + "\r\n";
}

class RedisBackend : public testing::Test {
protected:
    void use(const std::string& rest, const Credentials& credentials = {"u", "secret"}) {
        backend = backendFor(server.url(rest), credentials);
        ASSERT_NE(backend, nullptr);
    }
    void SetUp() override { use(""); }
    Status open() { return backend->open(plainWaiter); }
    void opened() {
        const Status outcome = open();
        ASSERT_EQ(outcome.code, 0) << outcome.reason;
    }
    Status put(const std::string& value = "v", const std::string& name = "host1") {
        const RdbSnapshot record = recordOf(name, value);
        return backend->tags()->put({&record, 1});
    }
    //  Sets the server's answer so that the next read finds a valid tag.
    void holdTag() {
        server.answer("HLEN", ":3\r\n");
        server.answer("HMGET", usableHash);
    }
    void holdValue(const std::string& time, const std::string& value) {
        server.answer("HLEN", ":3\r\n");
        server.answer("HMGET", valueHash(time, value));
    }
    std::vector<std::string> words() {
        std::vector<std::string> all;
        for (const FakeRedis::Command& command : server.received())
            all.push_back(command.front());
        return all;
    }

    FakeRedis server;
    std::unique_ptr<Backend> backend;
};

using Words = std::vector<std::string>;

TEST(RedisUrl, AcceptsAServerAPortADatabaseAndAnExpiry) {
    for (const char* url : {"redis://host", "redis://host/", "redis://[::1]:7000/3", "redis://10.0.0.1/15?expire=660",
                            "redis://h/0?expire=31536000", "REDIS://h"})
        EXPECT_EQ(makeReason(url), "") << url;
}

TEST(RedisUrl, RefusesEverythingElseWithAReason) {
    for (const char* url :
         {"redis://", "redis:///1", "redis://h/x", "redis://h/1/2", "redis://h/-1", "redis://h/4294967296",
          "redis://h:0", "redis://u:p@h", "redis://h?expire=659", "redis://h?expire=0", "redis://h?expire=31536001",
          "redis://h?expire=1h", "redis://h?expire=", "redis://h?expire=900&expire=900", "redis://h?ttl=900"})
        EXPECT_NE(makeReason(url), "") << url;
    EXPECT_NE(makeReason("redis://h?expire=600").find("660"), std::string::npos);
    EXPECT_EQ(makeReason("redis://h?ttl=900"), "malformed url: it has an option other than expire");
}

TEST_F(RedisBackend, ItsNameContainsOnlyServerAndDatabase) {
    use("/3?expire=900", {"someone", "secret"});
    EXPECT_EQ(backend->label(), server.url("/3"));
    EXPECT_TRUE(backend->tags() != nullptr);
    EXPECT_FALSE(backend->updates() != nullptr);
}

TEST_F(RedisBackend, LogsInWithUserAndPasswordAndSelectsTheDatabase) {
    use("/3", {"u", "secret"});
    opened();
    EXPECT_EQ(server.received(),
              (std::vector<FakeRedis::Command>{
                  {"AUTH", "u", "secret"}, {"CLIENT", "SETNAME", "addrpubd"}, {"PING"}, {"SELECT", "3"}}));
    EXPECT_EQ(backend->watchedDescriptor() >= 0, true);
    EXPECT_EQ(backend->checkInterval(), std::chrono::seconds(60));
}

TEST_F(RedisBackend, NeedsNoPermissionToSetItsConnectionName) {
    server.answer("CLIENT", "-NOPERM no\r\n");
    opened();
}

TEST_F(RedisBackend, ReadsThePasswordFileAtEachOpen) {
    const Folder folder;
    use("", {"u", "file:" + folder.file("secret")});
    EXPECT_EQ(open().reason, "the password file " + folder.file("secret") + " cannot be read: " + errorText(ENOENT));
    for (const char* secret : {"one", "two"}) {
        writeText(folder.file("secret"), secret);
        opened();
        backend->close();
    }
    ASSERT_EQ(server.received("AUTH").size(), 2U);
    EXPECT_EQ(server.received("AUTH")[0][2], "one");
    EXPECT_EQ(server.received("AUTH")[1][2], "two");
}

TEST_F(RedisBackend, UserDefaultLogsInToAServerWithoutUserNames) {
    use("", {"default", "secret"});
    server.answer("AUTH", "-ERR wrong number of arguments for 'auth' command\r\n");
    opened();
    EXPECT_EQ(server.received("AUTH").back(), (FakeRedis::Command{"AUTH", "secret"}));
    backend->close();
    server.answer("AUTH", "-ERR wrong number of arguments for 'auth' command\r\n");
    server.answer("AUTH", "-ERR Client sent AUTH, but no password is set\r\n");
    opened();
}

TEST_F(RedisBackend, NoReasonContainsAPasswordThatTheServerRepeats) {
    for (const char* answer : {"-ERR unknown command 'AUTH', with args beginning with: 'u' 'secret'\r\n", "-secret\r\n",
                               "-WRONGPASS secret\r\n", "+secret\r\n", "$6\r\nsecret\r\n", "secret\r\n"}) {
        server.answer("AUTH", answer);
        const Status outcome = open();
        EXPECT_EQ(outcome.code, errorBackendFailed) << answer;
        EXPECT_EQ(outcome.reason.find("secret"), std::string::npos) << outcome.reason;
        backend->close();
    }
}

TEST_F(RedisBackend, ReportsWhyItCannotBeOpened) {
    const struct {
        const char* word;
        const char* answer;
        const char* reason;
    } rows[] = {
        {"AUTH", "-WRONGPASS invalid\r\n",
         "AUTH refused: user or password is wrong, or the user is switched off (WRONGPASS)"},
        {"AUTH", "*0\r\n", "the server's answer to AUTH is not understood"},
        {"PING", "-LOADING Redis\r\n", "refused: the server is still loading its data (LOADING)"},
        {"PING", "-NOPERM x\r\n", "refused: the user has not every permission that is needed (NOPERM)"},
        {"PING", "+OK\r\n", "the server's answer to PING is not understood"},
        {"SELECT", "-ERR DB index is out of range\r\n",
         "SELECT refused: the server has no database of this number (ERR DB index is out of range)"},
    };
    use("/99");
    for (const auto& row : rows) {
        server.answer(row.word, row.answer);
        const Status outcome = open();
        EXPECT_EQ(outcome.code, errorBackendFailed) << row.answer;
        EXPECT_EQ(outcome.reason, row.reason);
        backend->close();
    }
}

TEST_F(RedisBackend, ReportsWhyAServerRejectsTheConnection) {
    server.greet("-ERR max number of clients reached\r\n", true);
    EXPECT_NE(open().reason.find("the server has too many connections"), std::string::npos);
}

TEST_F(RedisBackend, AnUnknownTagHasItsOwnErrorCode) {
    opened();
    RdbTag tag = tagNamed("host1");
    EXPECT_EQ(backend->tags()->get(tag).code, errorNoSuchTag);
    EXPECT_EQ(put().code, errorNoSuchTag);
    EXPECT_EQ(server.received("EXEC").size(), 0U);
    EXPECT_EQ(server.received("DISCARD").size(), 1U);
}

TEST_F(RedisBackend, AStoredTagIsReadWithItsThreeFields) {
    opened();
    server.answer("HLEN", ":4\r\n");
    server.answer("HMGET", "*3\r\n$3\r\n255\r\n$1\r\n0\r\n$1\r\n1\r\n");
    RdbTag tag = tagNamed("host1");
    ASSERT_EQ(backend->tags()->get(tag).code, 0);
    EXPECT_EQ(tag.tagclass, 255);
    EXPECT_EQ(tag.valuetype, 0);
    EXPECT_EQ(tag.importflag, 1);
}

TEST_F(RedisBackend, AnImportIsOneWatchedTransaction) {
    opened();
    ASSERT_EQ(backend->tags()->import(usableTag("host1")).code, 0);
    EXPECT_EQ(server.received("WATCH").front(),
              (FakeRedis::Command{"WATCH", "rdb:tag:host1", "rdb:value:host1", "rdb:history:host1"}));
    EXPECT_EQ(server.received("HSET").front(), (FakeRedis::Command{"HSET", "rdb:tag:host1", "class", "2", "type", "6",
                                                                   "importflag", "1", "imported_ms", "1700000000123"}));
    EXPECT_EQ(words(), (Words{"AUTH", "CLIENT", "PING", "WATCH", "TIME", "HLEN", "HMGET", "HLEN", "HMGET", "TYPE",
                              "MULTI", "HSET", "EXEC"}));
}

TEST_F(RedisBackend, APutWritesValueHistoryAndChangeWithTheServersTime) {
    opened();
    holdTag();
    ASSERT_EQ(put("2001:db8::1").code, 0);
    EXPECT_EQ(server.received("HSET").front(),
              (FakeRedis::Command{"HSET", "rdb:value:host1", "time_ms", "1700000000123", "type", "6", "value",
                                  "2001:db8::1"}));
    EXPECT_EQ(server.received("XADD").front(), (FakeRedis::Command{"XADD", "rdb:history:host1", "MAXLEN", "10000", "*",
                                                                   "type", "6", "value", "2001:db8::1"}));
    EXPECT_EQ(server.received("PUBLISH").front(), (FakeRedis::Command{"PUBLISH", "rdb:changed:host1", "2001:db8::1"}));
    EXPECT_EQ(server.received("EXPIRE").size(), 0U);
}

TEST_F(RedisBackend, ARepeatedValueIsPutAgainButNotPublished) {
    opened();
    holdTag();
    holdValue("1699999999000", "v");
    ASSERT_EQ(put("v").code, 0);
    EXPECT_EQ(server.received("XADD").size(), 1U);
    EXPECT_EQ(server.received("PUBLISH").size(), 0U);
}

TEST_F(RedisBackend, AnExpiryIsSetOnAllThreeKeysByEachWrite) {
    use("?expire=1800");
    opened();
    ASSERT_EQ(backend->tags()->import(usableTag("host1")).code, 0);
    holdTag();
    ASSERT_EQ(put().code, 0);
    const auto expiries = server.received("EXPIRE");
    ASSERT_EQ(expiries.size(), 6U);
    EXPECT_EQ(expiries[3], (FakeRedis::Command{"EXPIRE", "rdb:tag:host1", "1800"}));
    EXPECT_EQ(expiries[4], (FakeRedis::Command{"EXPIRE", "rdb:value:host1", "1800"}));
    EXPECT_EQ(expiries[5], (FakeRedis::Command{"EXPIRE", "rdb:history:host1", "1800"}));
}

TEST_F(RedisBackend, SeveralRecordsAreOneTransaction) {
    opened();
    server.answer("HLEN", ":3\r\n");
    server.answer("HLEN", ":0\r\n");
    server.answer("HLEN", ":3\r\n");
    for (const char* answer : {usableHash, "*3\r\n$-1\r\n$-1\r\n$-1\r\n", usableHash})
        server.answer("HMGET", answer);
    const RdbSnapshot records[]{recordOf("a", "1"), recordOf("b", "2")};
    ASSERT_EQ(backend->tags()->put(records).code, 0);
    EXPECT_EQ(server.received("EXEC").size(), 1U);
    EXPECT_EQ(server.received("HSET").size(), 2U);
}

TEST_F(RedisBackend, OneUnknownTagPreventsAllPutsOfARequest) {
    opened();
    holdTag();
    const RdbSnapshot records[]{recordOf("a", "1"), recordOf("b", "2")};
    EXPECT_EQ(backend->tags()->put(records).code, errorNoSuchTag);
    EXPECT_EQ(server.received("HSET").size(), 0U);
}

TEST_F(RedisBackend, ATagOfAnotherClassAcceptsNoValues) {
    opened();
    server.answer("HLEN", ":3\r\n");
    server.answer("HMGET", "*3\r\n$1\r\n3\r\n$1\r\n6\r\n$1\r\n1\r\n");
    EXPECT_EQ(put().code, errorTagNotUsable);
    EXPECT_EQ(server.received("HSET").size(), 0U);
}

TEST_F(RedisBackend, ATransactionThatOthersInterruptIsMadeAgainAFewTimes) {
    opened();
    for (int i = 0; i < 3; ++i) {
        server.answer("EXEC", "*-1\r\n");
        holdTag();
        server.answer("HLEN", ":0\r\n");
        server.answer("HMGET", "*3\r\n$-1\r\n$-1\r\n$-1\r\n");
    }
    holdTag();
    EXPECT_EQ(put().code, 0);
    EXPECT_EQ(server.received("EXEC").size(), 4U);
}

TEST_F(RedisBackend, ATransactionThatIsInterruptedEachTimeIsRefused) {
    opened();
    for (int i = 0; i < 5; ++i)
        server.answer("EXEC", "*-1\r\n");
    const Status outcome = backend->tags()->import(usableTag("host1"));
    EXPECT_EQ(outcome.code, errorServerRefused);
    EXPECT_EQ(outcome.reason, "other clients keep changing the same keys");
    EXPECT_EQ(backend->probe().code, 0);
}

TEST_F(RedisBackend, APutWhoseAnswerWasLostIsNotMadeTwice) {
    opened();
    holdTag();
    server.answerAndClose("EXEC", "");
    EXPECT_EQ(put().code, errorBackendFailed);
    backend->close();
    opened();
    holdTag();
    holdValue("1700000000123", "v");
    EXPECT_EQ(put().code, 0);
    EXPECT_EQ(server.received("EXEC").size(), 1U);
    holdTag();
    holdValue("1700000000123", "v");
    EXPECT_EQ(put().code, 0);  // another put is independent of the lost answer
    EXPECT_EQ(server.received("EXEC").size(), 2U);
}

TEST_F(RedisBackend, APutWhoseAnswerWasLostIsNotMadeTwiceEvenAfterARefusal) {
    opened();
    holdTag();
    server.answerAndClose("EXEC", "");
    EXPECT_EQ(put().code, errorBackendFailed);
    backend->close();
    opened();
    server.answer("WATCH", "-BUSY a script runs\r\n");
    EXPECT_EQ(put().code, errorServerRefused);
    holdTag();
    holdValue("1700000000123", "v");
    EXPECT_EQ(put().code, 0);
    EXPECT_EQ(server.received("EXEC").size(), 1U);
}

TEST_F(RedisBackend, APutWhoseAnswerWasLostIsRepeatedWhenTheServerHasNotDoneIt) {
    opened();
    holdTag();
    server.answerAndClose("EXEC", "");
    EXPECT_EQ(put().code, errorBackendFailed);
    backend->close();
    opened();
    holdTag();
    holdValue("1699999999000", "v");
    EXPECT_EQ(put().code, 0);
    EXPECT_EQ(server.received("EXEC").size(), 2U);
}

TEST_F(RedisBackend, ACheckReportsWhetherTheServerHasTheValue) {
    opened();
    EXPECT_EQ(backend->tags()->checkValue(recordOf("host1", "v")).code, errorNotHeld);
    holdValue("1", "v");
    EXPECT_EQ(backend->tags()->checkValue(recordOf("host1", "v")).code, 0);
    holdValue("1", "w");
    EXPECT_EQ(backend->tags()->checkValue(recordOf("host1", "v")).code, errorNotHeld);
}

TEST_F(RedisBackend, AProbeNoticesAClosedConnection) {
    opened();
    EXPECT_EQ(backend->probe().code, 0);
    server.hangUp();
    pollfd waited{backend->watchedDescriptor(), POLLIN, 0};
    ASSERT_EQ(poll(&waited, 1, 60000), 1);
    const Status outcome = backend->probe();
    EXPECT_EQ(outcome.code, errorBackendFailed);
    EXPECT_EQ(outcome.reason, "the server closed the connection");
}

TEST_F(RedisBackend, AProbeDetectsUnrequestedData) {
    opened();
    server.say("+PONG\r\n");
    pollfd waited{backend->watchedDescriptor(), POLLIN, 0};
    ASSERT_EQ(poll(&waited, 1, 60000), 1);
    const Status outcome = backend->probe();
    EXPECT_EQ(outcome.code, errorBackendFailed);
    EXPECT_EQ(outcome.reason, "the server sent what it was not asked for");
}

}  // namespace
