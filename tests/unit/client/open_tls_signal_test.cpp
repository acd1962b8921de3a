//  A signal handler calls rdb_disconnect and rdb_destory at any moment of a TLS connection: while connecting, in the
//  handshake, in a request, and between two requests.
#include "open_fake_redis.h"
#include "open_interrupt.h"
#include "open_tls_support.h"

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

class TlsSignal : public testing::Test {
protected:
    TlsSignal() { writeText(folder.file("ca"), pki().authority.certificatePem()); }
    std::string url(std::uint16_t port) const {
        return "rediss://127.0.0.1:" + std::to_string(port) + "?ca=" + folder.file("ca");
    }

    const Folder folder;
    FakeRedis redis;
};

TEST_F(TlsSignal, MayEndTheHandleAtAnyMoment) {
    const TlsServer server({.upstream = redis.port()});
    for (int round = 0; round < 1000; ++round)
        roundOf(url(server.port()), 20 + round * 37 % 6000);
    EXPECT_TRUE(workersEnded());
    EXPECT_GT(server.connections(), 0);
    EXPECT_GT(redis.connections(), 0);
}

//  The plain server does not understand the handshake, and keeps the connection open without an answer.
TEST_F(TlsSignal, EndsAHandshakeThatTheServerDoesNotAnswer) {
    roundOf(url(redis.port()), 20000);
    EXPECT_TRUE(workersEnded());
}

}  // namespace
