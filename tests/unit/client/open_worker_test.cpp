//  The worker: connecting, serving requests, failures and closing.
#include "engine/worker.h"

#include "open_worker_fixture.h"

#include <csignal>
#include <pthread.h>
#include <set>

namespace {

using namespace opentest;
using namespace rdbopen;

using Worker_ = WorkerTest;

TEST_F(Worker_, ReportsConnectedOnlyAfterTheFirstSuccessfulOpen) {
    script->opens = {backendFailed("a"), backendFailed("a"), {}};
    connect();
    EXPECT_EQ(script->opened, 3);
    EXPECT_EQ(events.count(), 0U);
}

TEST_F(Worker_, ReleasesFreeMemoryAfterTheOpenAndAfterACall) {
    const int before = trims;
    connect();
    ASSERT_TRUE(eventually([before] { return trims == before + 1; }));
    ASSERT_EQ(put(), 0);
    EXPECT_TRUE(eventually([before] { return trims == before + 2; }));
}

//  In a process with another allocator, glibc 2.36 crashes if the first two calls of malloc_trim overlap.
TEST_F(Worker_, ReleasesFreeMemoryWhileNoOtherWorkerDoes) {
    connect();
    const int other = rdb_create();
    ASSERT_EQ(connectFake(other, std::make_shared<Script>()), 0);
    trimsOverlapped = false;
    const auto putOften = [](int to) {
        const RdbSnapshot record = recordOf("t", "1");
        for (int i = 0; i < 200; ++i)
            rdb_objputsnapshot(to, &record, 1);
    };
    std::thread caller(putOften, other);
    putOften(handle);
    caller.join();
    rdb_destory(other);
    EXPECT_FALSE(trimsOverlapped);
}

TEST_F(Worker_, WaitsLongerAfterEachFailure) {
    script->opens = {backendFailed("a"), backendFailed("a"), backendFailed("a")};
    connect();
    for (const int base : {1000, 2000, 4000})
        expectBackoff(base);
}

TEST_F(Worker_, TheFirstWaitDiffersBetweenLosses) {
    connect();
    std::set<int> seen;
    for (int loss = 0; loss < 20; ++loss) {
        advance(60);
        script->requests = {backendFailed("a")};
        EXPECT_EQ(put(), errorBackendFailed);
        EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
        EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
        seen.insert(pauses.take());
    }
    EXPECT_GT(seen.size(), 1U);
}

TEST_F(Worker_, AnUpdateRequestSucceedsInsideTheConnectedEvent) {
    struct Context {
        int handle;
        Replies replies;
        Inbox<int> codes;
    } context{handle, {}, {}};
    const auto sendFromEvent = [](std::int32_t, std::int64_t, void* user) {
        auto* that = static_cast<Context*>(user);
        that->codes.put(rdb_callmsg(that->handle, "x", 1, onReply, &that->replies));
    };
    rdb_setmessagenotify(handle, sendFromEvent, &context);
    ASSERT_EQ(connectFake(handle, script), 0);
    EXPECT_EQ(context.replies.take(), "done x");
    EXPECT_EQ(context.codes.take(), 0);
    end();
}

TEST_F(Worker_, ABlockingCallFromACallbackIsRefused) {
    struct Context {
        int handle;
        Inbox<int> codes;
    } context{handle, {}};
    const auto getFromEvent = [](std::int32_t, std::int64_t, void* user) {
        auto* that = static_cast<Context*>(user);
        RdbTag tag = tagNamed("t");
        that->codes.put(rdb_tagget(that->handle, &tag));
    };
    rdb_setmessagenotify(handle, getFromEvent, &context);
    ASSERT_EQ(connectFake(handle, script), 0);
    EXPECT_EQ(context.codes.take(), errorInCallback);
    end();
}

//  Memory is exhausted from the delivery of the first reply to that of the second one.
TEST_F(Worker_, AMessageInTheQueueAtAFailureIsAnsweredAlsoWithoutMemory) {
    struct Context {
        Inbox<int> lengths;
        static void onFirst(const char*, std::int32_t, void*) { failNew = true; }
        static void onSecond(const char*, std::int32_t length, void* user) {
            failNew = false;
            static_cast<Context*>(user)->lengths.put(length);
        }
    } context;
    connect();
    script->hold = true;
    script->requests = {backendFailed("broken")};
    ASSERT_EQ(rdb_callmsg(handle, "x", 1, Context::onFirst, nullptr), 0);
    ASSERT_EQ(rdb_callmsg(handle, "y", 1, Context::onSecond, &context), 0);
    script->hold = false;
    context.lengths.take();
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    end();
}

TEST_F(Worker_, CallsBeforeTheConnectionAreRefusedAtOnce) {
    EXPECT_EQ(tagGet(), errorNotConnected);
    EXPECT_EQ(send("x"), errorNotConnected);
}

TEST_F(Worker_, AFailedRequestEndsInDisconnectedAndThenConnected) {
    connect();
    script->requests = {backendFailed("broken")};
    EXPECT_EQ(tagGet(), errorBackendFailed);
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    EXPECT_EQ(script->closed, 1);
    EXPECT_EQ(tagGet(), 0);
}

TEST_F(Worker_, AMissingTagLeavesTheConnectionUp) {
    connect();
    script->requests = {{errorNoSuchTag, {}}};
    EXPECT_EQ(tagGet(), errorNoSuchTag);
    EXPECT_EQ(tagGet(), 0);
    EXPECT_EQ(events.count(), 0U);
    EXPECT_EQ(script->opened, 1);
}

TEST_F(Worker_, TheWaitKeepsGrowingWhileConnectionsAreShort) {
    connect();
    for (const int base : {1000, 2000, 4000, 8000}) {
        EXPECT_EQ(put(), 0);
        script->requests = {backendFailed("full")};
        EXPECT_EQ(put(), errorBackendFailed);
        EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
        EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
        expectBackoff(base);
    }
}

TEST_F(Worker_, AfterAConnectionOfAMinuteTheWaitStartsAtOneSecond) {
    connect();
    for (const int seconds : {0, 59, 60, 60}) {
        advance(seconds);
        script->requests = {backendFailed("full")};
        EXPECT_EQ(put(), errorBackendFailed);
        EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
        EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    }
    for (const int base : {1000, 2000, 1000, 1000})
        expectBackoff(base);
}

TEST_F(Worker_, AlternatingReasonsAreEachReportedOnce) {
    script->opens = {backendFailed("a"), backendFailed("a"), backendFailed("b"),
                     backendFailed("a"), backendFailed("b"), backendFailed("a")};
    connect();
    EXPECT_EQ(reports.count(), 2U);
    EXPECT_EQ(reports.take(), "rdbapi: fake: a");
    EXPECT_EQ(reports.take(), "rdbapi: fake: b");
}

TEST_F(Worker_, AReasonWhoseLineWasLostIsReportedAtTheNextFailure) {
    loseLines = 2;
    script->opens = {backendFailed("a"), backendFailed("a"), backendFailed("a"), backendFailed("a")};
    connect();
    EXPECT_EQ(loseLines, 0);
    EXPECT_EQ(reports.count(), 1U);
    EXPECT_EQ(reports.take(), "rdbapi: fake: a");
}

TEST_F(Worker_, AReasonIsReportedAgainAfterARecovery) {
    script->opens = {backendFailed("a")};
    connect();
    EXPECT_EQ(put(), 0);
    script->requests = {serverRefused("a"), serverRefused("b"), serverRefused("a")};
    EXPECT_EQ(put(), errorServerRefused);
    ASSERT_TRUE(eventually([&] { return script->served == 5; }));
    for (const char* const text : {"a", "works again", "a", "b", "works again"})
        EXPECT_EQ(reports.take(), std::string("rdbapi: fake: ") + text);
}

TEST_F(Worker_, AReasonThatContainsSecondsIsReportedOnceForAllNumbers) {
    script->opens = {backendFailed("clocks 400 s ahead"),
                     backendFailed("clocks 9 s ahead"),
                     backendFailed("clocks 400 s behind"),
                     backendFailed("clocks 401 s behind"),
                     backendFailed("code 11 seen"),
                     backendFailed("code 12 seen"),
                     backendFailed("away 3 s"),
                     backendFailed("away 44 s")};
    connect();
    EXPECT_EQ(reports.count(), 5U);
    for (const char* const reason :
         {"clocks 400 s ahead", "clocks 400 s behind", "code 11 seen", "code 12 seen", "away 3 s"})
        EXPECT_EQ(reports.take(), std::string("rdbapi: fake: ") + reason);
}

TEST_F(Worker_, AnExchangeThatTheClosedHandleEndsIsNotReported) {
    connect();
    script->hold = true;
    script->requests = {backendFailed("the handle was closed")};
    ASSERT_EQ(send("x"), 0);
    ASSERT_TRUE(eventually([&] { return script->served == 1; }));
    rdb_disconnect(handle);
    script->hold = false;
    end();
    EXPECT_EQ(reports.count(), 0U);
}

TEST_F(Worker_, TheRecoveryIsReportedAfterTheFirstSuccessfulRequest) {
    script->opens = {backendFailed("a")};
    connect();
    EXPECT_EQ(reports.take(), "rdbapi: fake: a");
    EXPECT_EQ(reports.count(), 0U);
    EXPECT_EQ(tagGet(), 0);
    EXPECT_EQ(reports.take(), "rdbapi: fake: works again");
}

TEST_F(Worker_, ACallTimesOutAfterThreeSeconds) {
    connect();
    script->hold = true;
    expireWaits = true;
    EXPECT_EQ(tagGet(), errorTimedOut);
    expireWaits = false;
    EXPECT_EQ(waitLimit, 3000);
}

TEST_F(Worker_, AnAbandonedCallDoesNotWriteToTheCallersRecord) {
    connect();
    script->hold = true;
    RdbTag tag = tagNamed("t");
    expireWaits = true;
    expireWhen = [this] { return script->served == 1; };
    EXPECT_EQ(rdb_tagget(handle, &tag), errorTimedOut);
    expireWaits = false;
    script->hold = false;
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);  // sent by the caller's thread at its time limit
    EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);     // sent by the worker after it has finished the call
    EXPECT_EQ(tag.tagclass, 0);
}

TEST_F(Worker_, ACallThatWasAbandonedInTheQueueIsNotExecuted) {
    connect();
    skipBackoff = false;
    script->hold = true;
    ASSERT_EQ(send("first"), 0);
    ASSERT_TRUE(eventually([&] { return script->served == 1; }));
    expireWaits = true;
    EXPECT_EQ(tagGet(), errorTimedOut);
    expireWaits = false;
    script->hold = false;
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);  // sent by the caller's thread at its time limit
    EXPECT_EQ(reports.take(), "rdbapi: fake: a request for a tag was not answered within 3 s");
    EXPECT_EQ(script->takeMade(), std::vector<std::string>{"send first"});
}

TEST_F(Worker_, TheQueueIsBounded) {
    connect();
    script->hold = true;
    ASSERT_EQ(send("served"), 0);
    ASSERT_TRUE(eventually([&] { return script->served == 1; }));
    for (std::size_t i = 0; i < queueCapacity; ++i)
        EXPECT_EQ(send("waiting"), 0);
    EXPECT_EQ(send("too many"), errorBusy);
}

TEST_F(Worker_, AMessageInTheQueueAtAFailureIsRefused) {
    connect();
    script->hold = true;
    script->requests = {backendFailed("broken")};
    ASSERT_EQ(send("one"), 0);
    ASSERT_EQ(send("two"), 0);
    script->hold = false;
    EXPECT_EQ(replies.take(), "done one");
    EXPECT_EQ(replies.take(), "refused two 1005");
}

TEST_F(Worker_, ACallThatTheBackEndDoesNotSupportIsRefused) {
    script->messages = false;
    script->opens = {backendFailed("a")};
    connect();
    EXPECT_EQ(send("x"), errorNotSupported);
    EXPECT_EQ(tagGet(), 0);
}

TEST_F(Worker_, ASecondConnectIsRefused) {
    connect();
    EXPECT_EQ(connectFake(handle, script), errorAlreadyConnecting);
    EXPECT_EQ(rdb_setmessagenotify(handle, onEvent, &events), errorAlreadyConnecting);
}

TEST_F(Worker_, AClosedHandleRefusesCalls) {
    connect();
    rdb_disconnect(handle);
    EXPECT_EQ(tagGet(), errorClosed);
    EXPECT_EQ(send("x"), errorClosed);
}

TEST_F(Worker_, NoEventAndNoReplyFollowADisconnect) {
    connect();
    script->hold = true;
    ASSERT_EQ(send("x"), 0);
    ASSERT_TRUE(eventually([&] { return script->served == 1; }));
    script->requests = {backendFailed("broken")};
    rdb_disconnect(handle);
    script->hold = false;
    ASSERT_TRUE(eventually([&] { return script->closed == 1; }));
    EXPECT_EQ(events.count(), 0U);
    EXPECT_EQ(replies.count(), 0U);
}

TEST_F(Worker_, ADisconnectDuringTheBackOffEndsTheWorkerWithoutAnotherOpen) {
    skipBackoff = false;
    script->opens = {backendFailed("a")};
    ASSERT_EQ(connectFake(handle, script), 0);
    ASSERT_TRUE(eventually([&] { return reports.count() == 1; }));
    rdb_disconnect(handle);
    rdb_destory(handle);
    EXPECT_TRUE(workersEnded());
    EXPECT_EQ(script->opened, 1);
}

TEST_F(Worker_, IfTheThreadCannotBeStartedConnectFailsAndMayBeRepeated) {
    failThreads = true;
    EXPECT_EQ(connectFake(handle, script), errorNoResources);
    failThreads = false;
    connect();
}

TEST_F(Worker_, AFailedWaitIsRepeatedAfterAPause) {
    longSleeps = 0;
    failPolls = 3;
    connect();
    ASSERT_TRUE(eventually([] { return failPolls == 0 && longSleeps == 3; }));
    EXPECT_EQ(tagGet(), 0);
    EXPECT_EQ(longSleeps, 3);
}

TEST_F(Worker_, ItsThreadBlocksTheUsualSignals) {
    const auto noteMask = [](std::int32_t, std::int64_t, void* user) {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        int blocked = 0;
        for (const int signal : {SIGINT, SIGTERM, SIGALRM, SIGHUP, SIGUSR1, SIGPIPE, SIGCHLD})
            blocked += sigismember(&mask, signal);
        static_cast<Inbox<int>*>(user)->put(blocked);
    };
    Inbox<int> blocked;
    rdb_setmessagenotify(handle, noteMask, &blocked);
    ASSERT_EQ(connectFake(handle, script), 0);
    EXPECT_EQ(blocked.take(), 7);
    end();
}

TEST_F(Worker_, TheCallersThreadDoesNotBlockSigterm) {
    connect();
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_FALSE(sigismember(&mask, SIGTERM));
}

}  // namespace
