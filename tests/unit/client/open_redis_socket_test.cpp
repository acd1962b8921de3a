//  redis+unix://: the back end redis at a Unix socket, and the warnings of addrpubd-check.
#include "open_fake_redis.h"
#include "open_support.h"

#include <gtest/gtest.h>

namespace {

using namespace opentest;
using namespace rdbopen;

Status madeFrom(const std::string& url) {
    return makeBackend(url, {"u", "p"}).status();
}

std::vector<Advice> adviceOn(const std::string& text) {
    const Result<Url> url = parseUrl(text);
    std::vector<Advice> advice;
    const Result<const Module*> module = moduleForUrl(*url);
    (*module)->advise({*url, {"u", "p"}, "rdburl", "rdbpswd", "host1", {}}, advice);
    return advice;
}

TEST(RedisSocketUrl, TakesAPathADatabaseAndAnExpiry) {
    for (const char* url :
         {"redis+unix:///s", "redis+unix:///run/redis/redis.sock?db=15&expire=660", "REDIS+UNIX:///s"})
        EXPECT_EQ(madeFrom(url).reason, "") << url;
    EXPECT_EQ(madeFrom("redis+unix:///" + std::string(106, 's')).reason, "");
}

TEST(RedisSocketUrl, RefusesInvalidUrls) {
    for (const char* url : {"redis+unix://", "redis+unix:///", "redis+unix://h/s", "redis+unix:///s/",
                            "redis+unix:///s?db=x", "redis+unix:///s?db=", "redis+unix:///s?db=1&db=1",
                            "redis+unix:///s?expire=659", "redis+unix:///s?ca=/x", "redis+unix:s"}) {
        EXPECT_EQ(madeFrom(url).code, errorBadUrl) << url;
        EXPECT_NE(madeFrom(url).reason, "") << url;
    }
    EXPECT_EQ(madeFrom("redis+unix:///" + std::string(107, 's')).reason,
              "malformed url: the path of a socket has at most 107 bytes");
    EXPECT_EQ(madeFrom("redis://h?db=1").reason, "malformed url: it has an option other than expire and history");
}

TEST(RedisSocket, ServesTheBackEnd) {
    const Folder folder;
    FakeRedis server(folder.file("s"));
    const auto backend = backendFor("redis+unix://" + folder.file("s") + "?db=3", {"u", "secret"});
    ASSERT_NE(backend, nullptr);
    EXPECT_EQ(backend->label(), "redis+unix://" + folder.file("s") + "?db=3");
    ASSERT_EQ(backend->open(plainWaiter).reason, "");
    EXPECT_EQ(server.received("SELECT"), (std::vector<FakeRedis::Command>{{"SELECT", "3"}}));
    EXPECT_EQ(backend->tags()->import(usableTag("host1")).reason, "");
    backend->close();
}

TEST(RedisSocket, ThatDoesNotExistCannotBeReached) {
    const Folder folder;
    const auto backend = backendFor("redis+unix://" + folder.file("s"), {"u", "secret"});
    EXPECT_EQ(backend->open(plainWaiter).reason, "cannot be reached: " + errorText(ENOENT));
}

TEST(RedisSocket, WhoseServerClosesItDoesNotBlameTls) {
    const Folder folder;
    FakeRedis server(folder.file("s"));
    server.answerAndClose("AUTH", "");
    const auto backend = backendFor("redis+unix://" + folder.file("s"), {"u", "secret"});
    EXPECT_EQ(backend->open(plainWaiter).reason, "the server closed the connection");
}

TEST(RedisSocket, InAFolderOfAllUsersGetsAWarning) {
    const std::vector<Advice> advice = adviceOn("redis+unix:///tmp/redis.sock?db=1");
    ASSERT_EQ(advice.size(), 1U);
    EXPECT_EQ(advice[0].text,
              "rdburl: other users can create files in /tmp/, a folder of the path: use a folder that only "
              "the service may write to");
    EXPECT_TRUE(adviceOn("redis+unix:///run/redis.sock").empty());
    EXPECT_TRUE(adviceOn("redis://host").empty());
}

}  // namespace
