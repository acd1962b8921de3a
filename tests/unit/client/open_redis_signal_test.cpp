//  A signal handler calls rdb_disconnect and rdb_destory at any moment of a connection to a Redis server: while
//  connecting, during the login, in a request, and while idle.
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

}  // namespace
