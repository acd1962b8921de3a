//  A signal handler calls rdb_disconnect and rdb_destory at any moment of an embedded back end's work: while
//  connecting, in a request, or between two requests.
#include "open_interrupt.h"
#include "open_support.h"

#include <gtest/gtest.h>

namespace {

using namespace opentest;

void askEverything(int handle, int count) {
    const std::string number = std::to_string(count);
    RdbTag tag = usableTag("t" + std::to_string(count % 3));
    std::int32_t result = 0;
    rdb_taginport(handle, RDB_TAGINPORT_MODE, &tag, &result);
    const RdbSnapshot record = recordOf(tag.name, number);
    rdb_objputsnapshot(handle, &record, 1);
    const std::string message = R"({"request":"ws_dnsupdate","seqno":1,"item":{"name":"h","ipv6s":["2001:db8::)" +
                                std::to_string(count % 9) + "\"]}}";
    rdb_callmsg(handle, message.data(), static_cast<std::int32_t>(message.size()), ignoreReply, nullptr);
}

void thousandRounds(const std::string& url) {
    for (int round = 0; round < 1000; ++round) {
        const int handle = rdb_create();
        ASSERT_GE(handle, 0);
        ASSERT_EQ(rdb_setmessagenotify(handle, ignoreEvent, nullptr), 0);
        handleToEnd = handle;
        interruptIn(1 + round * 37 % 3000);
        rdb_connectex(handle, url.c_str(), "u", "p", 0);
        for (int count = 0; interrupted == 0; ++count)
            askEverything(handle, count);
        RdbTag tag = tagNamed("t");
        EXPECT_NE(rdb_tagget(handle, &tag), 0);
    }
    EXPECT_TRUE(workersEnded());
}

//  Returns whether another handle works after the signal. If it works, no lock is still held.
bool worksAfterwards(const std::string& url) {
    Events events;
    const int handle = rdb_create();
    rdb_setmessagenotify(handle, onEvent, &events);
    rdb_connectex(handle, url.c_str(), "u", "p", 0);
    const bool connected = events.take() == RDB_EVENT_CONNECTED;
    rdb_destory(handle);
    return workersEnded() && connected;
}

TEST(SignalHandlerEmbedded, MayEndALogHandleAtAnyMoment) {
    thousandRounds("log:");
    EXPECT_TRUE(worksAfterwards("log:"));
}

#ifdef RDBOPEN_WITH_SQLITE
TEST(SignalHandlerEmbedded, MayEndASqliteHandleAtAnyMoment) {
    const Folder folder;
    thousandRounds("sqlite://" + folder.file("rdb.db"));
    EXPECT_TRUE(worksAfterwards("sqlite://" + folder.file("rdb.db")));
}
#endif

#ifdef RDBOPEN_WITH_HOSTS
TEST(SignalHandlerEmbedded, MayEndAHostsHandleAtAnyMoment) {
    const Folder folder;
    thousandRounds("hosts://" + folder.file("hosts"));
    EXPECT_TRUE(worksAfterwards("hosts://" + folder.file("hosts")));
}
#endif

}  // namespace
