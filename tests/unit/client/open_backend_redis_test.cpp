//  The back end redis with a fake server. Each test determines the server's answers.
#include "engine/retry_schedule.h"
#include "redis/backend.h"
#include "redis/scripts.h"

#include "open_fake_redis.h"
#include "open_support.h"

#include <gtest/gtest.h>

namespace {

using namespace opentest;
using namespace rdbopen;

std::string makeReason(const std::string& url) {
    const BackendResult backend = makeBackend(url, {"u", "p"});
    EXPECT_TRUE(backend.ok() || backend.status().code == errorBadUrl) << url;
    return backend.status().reason;
}

//  Returns the answer to HMGET for a current value.
std::string valueHash(const std::string& value) {
    return "*3\r\n$1\r\n1\r\n$1\r\n6\r\n$" + std::to_string(value.size()) + "\r\n" + value + "\r\n";
}

constexpr char noScript[] = "-NOSCRIPT No matching script. Please use EVAL.\r\n";

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

TEST(RedisUrl, TakesAServerAPortADatabaseAnExpiryAndAHistory) {
    for (const char* url :
         {"redis://host", "redis://host/", "redis://[::1]:7000/3", "redis://10.0.0.1/15?expire=660",
          "redis://h/0?expire=31536000", "REDIS://h", "redis://h?history=0", "redis://h?history=100000&expire=900"})
        EXPECT_EQ(makeReason(url), "") << url;
}

TEST(RedisUrl, RefusesInvalidUrls) {
    for (const char* url :
         {"redis://", "redis:///1", "redis://h/x", "redis://h/1/2", "redis://h/-1", "redis://h/4294967296",
          "redis://h:0", "redis://u:p@h", "redis://h?expire=659", "redis://h?expire=0", "redis://h?expire=31536001",
          "redis://h?expire=1h", "redis://h?expire=", "redis://h?expire=900&expire=900", "redis://h?ttl=900",
          "redis://h?history=100001", "redis://h?history=", "redis://h?history=-1", "redis://h?history=1&history=1"})
        EXPECT_NE(makeReason(url), "") << url;
    EXPECT_EQ(makeReason("redis://h?expire=600"),
              "malformed url: expire is not a number of seconds from 660 (an unchanged value is repeated after " +
                  std::to_string(refreshTime / std::chrono::seconds(1)) + ") to 31536000");
    EXPECT_EQ(makeReason("redis://h?ttl=900"), "malformed url: it has an option other than expire and history");
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

TEST_F(RedisBackend, EachOutcomeOfAScriptHasItsCode) {
    const struct {
        const char* answer;
        int code;
        const char* reason;
    } rows[] = {
        {"*1\r\n$4\r\ndone\r\n", 0, ""},
        {"*1\r\n$9\r\nconfirmed\r\n", 0, ""},
        {"*4\r\n$9\r\nconfirmed\r\n$1\r\n2\r\n$1\r\n6\r\n$1\r\n1\r\n", 0, ""},
        {"*1\r\n$6\r\nno-tag\r\n", errorNoSuchTag, ""},
        {"*1\r\n$10\r\nnot-usable\r\n", errorTagNotUsable, ""},
        {"*2\r\n$7\r\nforeign\r\n$8\r\nrdb:tag:\r\n", errorServerRefused,
         "rdb:tag: is somebody else's and stays as it is"},
        {"*2\r\n$7\r\nforeign\r\n$3\r\na\nb\r\n", errorServerRefused, "a?b is somebody else's and stays as it is"},
    };
    opened();
    for (const auto& row : rows) {
        server.answer("EVALSHA", row.answer);
        const Status outcome = put();
        EXPECT_EQ(outcome.code, row.code) << row.answer;
        EXPECT_EQ(outcome.reason, row.reason);
    }
    EXPECT_EQ(server.connections(), 1);
}

TEST_F(RedisBackend, AMissingTagHasItsCode) {
    opened();
    RdbTag tag = tagNamed("host1");
    EXPECT_EQ(backend->tags()->get(tag).code, errorNoSuchTag);
}

TEST_F(RedisBackend, AStoredTagIsReadWithItsThreeFields) {
    opened();
    server.answer("HMGET", "*3\r\n$3\r\n255\r\n$1\r\n0\r\n$1\r\n1\r\n");
    RdbTag tag = tagNamed("host1");
    ASSERT_EQ(backend->tags()->get(tag).code, 0);
    EXPECT_EQ(tag.tagclass, 255);
    EXPECT_EQ(tag.valuetype, 0);
    EXPECT_EQ(tag.importflag, 1);
    EXPECT_EQ(server.received("HMGET"),
              (std::vector<FakeRedis::Command>{{"HMGET", "rdb:tag:{host1}", "class", "type", "importflag"}}));
}

const RdbSnapshot refreshed = recordOf("host1", "a");

TEST_F(RedisBackend, ARefreshPutsTheValueAndReadsTheTagInOneCommand) {
    opened();
    server.answer("EVALSHA", "*4\r\n$4\r\ndone\r\n$3\r\n255\r\n$1\r\n0\r\n$1\r\n1\r\n");
    RdbTag tag = usableTag("host1");
    ASSERT_EQ(backend->tags()->refresh(refreshed, tag).code, 0);
    EXPECT_EQ(tag.tagclass, 255);
    EXPECT_EQ(tag.valuetype, 0);
    EXPECT_EQ(tag.importflag, 1);
    EXPECT_EQ(words(), (Words{"AUTH", "CLIENT", "PING", "EVALSHA"}));
    EXPECT_EQ(backend->tags()->put({&refreshed, 1}).code, 0);
    const auto sent = server.received("EVALSHA");
    FakeRedis::Command expected = sent.back();
    expected.insert(expected.end(), {"6", "1"});
    EXPECT_EQ(sent.front(), expected);
}

TEST_F(RedisBackend, EachOutcomeOfARefreshHasItsCode) {
    opened();
    RdbTag tag = tagNamed("host1");
    for (const auto& [answer, code] :
         {std::pair("*1\r\n$6\r\nno-tag\r\n", errorNoSuchTag),
          {"*1\r\n$10\r\nnot-usable\r\n", errorTagNotUsable},
          {"*2\r\n$7\r\nforeign\r\n$1\r\nk\r\n", errorServerRefused},
          {"*1\r\n$4\r\ndone\r\n", errorBackendFailed},
          {"*4\r\n$4\r\ndone\r\n$1\r\n2\r\n$1\r\n6\r\n$3\r\n256\r\n", errorBackendFailed}}) {
        server.answer("EVALSHA", answer);
        EXPECT_EQ(backend->tags()->refresh(refreshed, tag).code, code) << answer;
    }
    std::memset(tag.name, 0, sizeof tag.name);
    RdbSnapshot unnamed = refreshed;
    std::memset(unnamed.name, 0, sizeof unnamed.name);
    EXPECT_EQ(backend->tags()->refresh(unnamed, tag).code, errorBadRequest);
}

TEST_F(RedisBackend, AnImportIsOneCommandWithAllKeysOfTheName) {
    use("?expire=1800");
    opened();
    ASSERT_EQ(backend->tags()->import(usableTag("host1")).code, 0);
    EXPECT_EQ(words(), (Words{"AUTH", "CLIENT", "PING", "EVALSHA"}));
    EXPECT_EQ(server.received("EVALSHA").front(),
              (FakeRedis::Command{"EVALSHA", std::string(redisImportScript.hash), "3", "rdb:tag:{host1}",
                                  "rdb:value:{host1}", "rdb:history:{host1}", "1800", "2", "6", "1"}));
}

TEST_F(RedisBackend, APutIsOneCommandWithAllKeysOfAllNames) {
    use("?history=7");
    opened();
    const RdbSnapshot records[]{recordOf("a", "1"), recordOf("b", "2001:db8::1")};
    ASSERT_EQ(backend->tags()->put(records).code, 0);
    EXPECT_EQ(words(), (Words{"AUTH", "CLIENT", "PING", "EVALSHA"}));
    EXPECT_EQ(server.received("EVALSHA").front(),
              (FakeRedis::Command{"EVALSHA", std::string(redisPutScript.hash), "6", "rdb:tag:{a}", "rdb:value:{a}",
                                  "rdb:history:{a}", "rdb:tag:{b}", "rdb:value:{b}", "rdb:history:{b}", "0", "7", "2",
                                  "6", "1", "rdb:changed:{a}", "6", "2001:db8::1", "rdb:changed:{b}"}));
}

TEST_F(RedisBackend, TheHistoryKeepsAThousandChangesByDefault) {
    opened();
    ASSERT_EQ(put().code, 0);
    EXPECT_EQ(server.received("EVALSHA").front()[7], "1000");
}

TEST_F(RedisBackend, AScriptThatTheServerDoesNotHaveIsSentWithTheSameArguments) {
    opened();
    server.answer("EVALSHA", noScript);
    ASSERT_EQ(put().code, 0);
    ASSERT_EQ(server.received("EVAL").size(), 1U);
    FakeRedis::Command expected = server.received("EVALSHA").front();
    expected[0] = "EVAL";
    expected[1] = redisPutScript.source;
    EXPECT_EQ(server.received("EVAL").front(), expected);
    ASSERT_EQ(put().code, 0);
    EXPECT_EQ(server.received("EVAL").size(), 1U);
}

TEST_F(RedisBackend, AScriptThatTheServerNeverTakesIsRefused) {
    use("", {"writer", "secret"});
    opened();
    server.answer("EVALSHA", noScript);
    server.answer("EVAL", noScript);
    const Status outcome = put();
    EXPECT_EQ(outcome.code, errorServerRefused);
    EXPECT_EQ(outcome.reason, "put refused: NOSCRIPT No matching script. Please use EVAL.");
}

TEST_F(RedisBackend, ANameThatMakesEmptyBracesIsRefusedBeforeAnythingIsSent) {
    opened();
    for (const std::string name : {"}", "}a", ""}) {
        RdbTag tag = usableTag(name);
        const RdbSnapshot records[]{recordOf("a", "1"), recordOf(name, "2")};
        const Status outcomes[]{backend->tags()->get(tag), backend->tags()->import(tag), backend->tags()->put(records)};
        for (const Status& outcome : outcomes) {
            EXPECT_EQ(outcome.code, errorBadRequest);
            EXPECT_EQ(outcome.reason, "the name " + name + " cannot be used: it is empty or starts with }");
        }
    }
    EXPECT_EQ(words(), (Words{"AUTH", "CLIENT", "PING"}));
    EXPECT_EQ(put("v", "a}b{").code, 0);
}

TEST_F(RedisBackend, ACheckReportsWhetherTheServerHasTheValue) {
    opened();
    EXPECT_EQ(backend->tags()->checkValue(recordOf("host1", "v")).code, errorNotHeld);
    server.answer("HMGET", valueHash("v"));
    EXPECT_EQ(backend->tags()->checkValue(recordOf("host1", "v")).code, 0);
    server.answer("HMGET", valueHash("w"));
    EXPECT_EQ(backend->tags()->checkValue(recordOf("host1", "v")).code, errorNotHeld);
    EXPECT_EQ(server.received("HMGET").front(),
              (FakeRedis::Command{"HMGET", "rdb:value:{host1}", "time_ms", "type", "value"}));
}

TEST_F(RedisBackend, ACheckOfAValueTestsTheConnectionInPlaceOfAPing) {
    const auto pings = [this] { return server.received("PING").size(); };
    const auto check = [this] {
        EXPECT_EQ(backend->probe().code, 0);
        return backend->tags()->checkValue(recordOf("host1", "v")).code;
    };
    opened();
    EXPECT_EQ(check(), errorNotHeld);
    EXPECT_EQ(pings(), 2U);  // one of them tests the new connection
    EXPECT_EQ(check(), errorNotHeld);
    EXPECT_EQ(pings(), 2U);
    EXPECT_EQ(backend->probe().code, 0);
    EXPECT_EQ(pings(), 2U);
    EXPECT_EQ(check(), errorNotHeld);
    EXPECT_EQ(pings(), 3U);
    server.hangUp();
    EXPECT_EQ(backend->probe().code, 0);
    EXPECT_EQ(backend->tags()->checkValue(recordOf("host1", "v")).code, errorBackendFailed);
    backend->close();
    opened();
    EXPECT_EQ(backend->probe().code, 0);
    EXPECT_EQ(pings(), 5U);
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
