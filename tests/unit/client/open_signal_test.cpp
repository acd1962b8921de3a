//  A signal handler calls rdb_disconnect and rdb_destory after it interrupted any other call on the same thread.
#include "open_fake_backend.h"
#include "open_interrupt.h"

#include <csignal>
#include <gtest/gtest.h>

namespace {

using namespace opentest;

void createAndDestroy(int) {
    const int other = rdb_create();
    rdb_destory(other);
}
void setNotify(int handle) {
    rdb_setmessagenotify(handle, onEvent, nullptr);
}
void connectBadly(int handle) {
    rdb_connectex(handle, "sqlite:///", "u", "p", 0);
}
void sendMessage(int handle) {
    rdb_callmsg(handle, "message", 7, ignoreReply, nullptr);
}
void getTag(int handle) {
    RdbTag tag = tagNamed("t");
    rdb_tagget(handle, &tag);
}
void importTag(int handle) {
    RdbTag tag = usableTag("t");
    std::int32_t result = 0;
    rdb_taginport(handle, RDB_TAGINPORT_MODE, &tag, &result);
}
void putValue(int handle) {
    const RdbSnapshot record = recordOf("t", "v");
    rdb_objputsnapshot(handle, &record, 1);
}
void createAndConnect(int) {
    const int other = rdb_create();
    if (other < 0)
        return;
    connectFake(other, std::make_shared<Script>());
    rdb_destory(other);
}

constexpr void (*calls[])(int) = {createAndDestroy, setNotify, connectBadly, sendMessage,
                                  getTag,           importTag, putValue,     createAndConnect};

//  Repeats one call until the handler has run.
void roundOf(void (*call)(int), int microseconds) {
    Events events;
    const auto script = std::make_shared<Script>();
    const int handle = rdb_create();
    ASSERT_GE(handle, 0);
    ASSERT_EQ(rdb_setmessagenotify(handle, onEvent, &events), 0);
    ASSERT_EQ(connectFake(handle, script), 0);
    ASSERT_EQ(events.take(), RDB_EVENT_CONNECTED);
    handleToEnd = handle;
    interruptIn(microseconds);
    while (interrupted == 0)
        call(handle);
    RdbTag tag = tagNamed("t");
    EXPECT_NE(rdb_tagget(handle, &tag), 0);
    ASSERT_TRUE(workersEnded());  // the callback writes to events, so it must have ended
}

TEST(SignalHandler, MayDisconnectAndDestroyInsideAnyOtherCall) {
    for (int round = 0; round < 1000; ++round)
        roundOf(calls[static_cast<std::size_t>(round) % std::size(calls)], 20 + round * 37 % 400);
}

TEST(SignalHandler, MayEndAHandleWhoseCallIsWaiting) {
    const auto script = std::make_shared<Script>();
    Events events;
    const int handle = rdb_create();
    rdb_setmessagenotify(handle, onEvent, &events);
    ASSERT_EQ(connectFake(handle, script), 0);
    ASSERT_EQ(events.take(), RDB_EVENT_CONNECTED);
    script->hold = true;
    ASSERT_EQ(rdb_callmsg(handle, "x", 1, ignoreReply, nullptr), 0);  // keeps the worker busy
    handleToEnd = handle;
    interruptIn(20000);
    const auto release = [](void* held) -> void* {
        eventually([] { return interrupted != 0; });
        static_cast<Script*>(held)->hold = false;
        return nullptr;
    };
    pthread_t releaser{};
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
    ASSERT_EQ(pthread_create(&releaser, nullptr, release, script.get()), 0);
    pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
    RdbTag tag = tagNamed("t");
    EXPECT_NE(rdb_tagget(handle, &tag), 0);
    pthread_join(releaser, nullptr);
    EXPECT_TRUE(workersEnded());
}

}  // namespace
