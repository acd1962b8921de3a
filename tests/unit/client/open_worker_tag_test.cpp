//  A request for a tag that is refused, fails or is not answered in time. The connection counts as lost until a
//  repetition of the request has succeeded or has shown that the tag does not exist.
#include "open_worker_fixture.h"

#include <unistd.h>

namespace {

using namespace opentest;
using namespace rdbopen;
using Made = std::vector<std::string>;

constexpr int away = 12000;  // ms: minimum pause after a failed tag query

class WorkerTagQuery : public WorkerTest {
protected:
    WorkerTagQuery() { EXPECT_EQ(pipe(ends), 0); }
    ~WorkerTagQuery() override {
        script->silent = -1;
        rdb_disconnect(handle);
        rdb_destory(handle);
        workersEnded();
        close(ends[0]);
        close(ends[1]);
    }
    void answer(std::deque<Status> outcomes) {
        const std::lock_guard lock(script->mutex);
        script->requests = std::move(outcomes);
    }
    //  Makes the next call time out as soon as the back end executes it.
    void giveUpCalls() {
        expireWaits = true;
        expireWhen = [this, served = script->served + 1] { return script->served >= served; };
    }
    //  Makes the server stop answering.
    void beSilent() { script->silent = ends[0]; }

    int ends[2];
};

TEST_F(WorkerTagQuery, ARefusedLookupEndsTheConnectionUntilItsRepetitionIsAnswered) {
    connect();
    answer({serverRefused("no"), serverRefused("no"), serverRefused("no")});
    EXPECT_EQ(tagGet(), errorServerRefused);
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    EXPECT_EQ(script->opened, 4);
    EXPECT_EQ(script->takeMade(), (Made{"get t", "get t", "get t", "get t"}));
}

TEST_F(WorkerTagQuery, ARefusedImportEndsTheConnectionUntilItsRepetitionHasSucceeded) {
    connect();
    answer({serverRefused("no"), serverRefused("no"), serverRefused("no")});
    EXPECT_EQ(import(), errorServerRefused);
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    EXPECT_EQ(script->opened, 4);
    EXPECT_EQ(script->takeMade(), (Made{"import t", "import t", "import t", "import t"}));
}

TEST_F(WorkerTagQuery, AServerWithoutTheTagHasAnsweredTheLookup) {
    connect();
    answer({serverRefused("no"), {errorNoSuchTag, {}}});
    EXPECT_EQ(tagGet(), errorServerRefused);
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    EXPECT_EQ(script->takeMade(), (Made{"get t", "get t"}));
}

TEST_F(WorkerTagQuery, AFailedQueryIsRepeatedBeforeConnectedIsReported) {
    connect();
    answer({backendFailed("lost"), backendFailed("lost")});
    EXPECT_EQ(tagGet(), errorBackendFailed);
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    EXPECT_EQ(script->takeMade(), (Made{"get t", "get t", "get t"}));
}

TEST_F(WorkerTagQuery, RequestsAfterARefusedLookupAreRefusedAtOnce) {
    skipBackoff = false;
    connect();
    for (int i = 0; i < 20; ++i) {
        answer({serverRefused("no")});
        EXPECT_EQ(tagGet(), i == 0 ? errorServerRefused : errorNotConnected);
        EXPECT_EQ(import(), errorNotConnected);
    }
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(script->takeMade(), Made{"get t"});
}

TEST_F(WorkerTagQuery, ARefusedPutLeavesTheConnectionUp) {
    connect();
    answer({{}, serverRefused("full"), serverRefused("full")});
    EXPECT_EQ(tagGet(), 0);
    EXPECT_EQ(put(), errorServerRefused);
    ASSERT_TRUE(eventually([&] { return script->served == 4; }));
    EXPECT_EQ(events.count(), 0U);
    EXPECT_EQ(script->opened, 1);
}

TEST_F(WorkerTagQuery, ATagIsSentBeforeARefusedPut) {
    connect();
    answer({serverRefused("full"), serverRefused("no"), {}, serverRefused("full")});
    skipBackoff = false;  // so that the put is not repeated before the import
    EXPECT_EQ(put(), errorServerRefused);
    skipBackoff = true;
    EXPECT_EQ(import(), errorServerRefused);
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    const Made made = script->takeMade();
    EXPECT_EQ(Made(made.begin(), made.begin() + 4), (Made{"put t=1", "import t", "import t", "put t=1"}));
}

TEST_F(WorkerTagQuery, ATagIsQueriedEvenIfTheCheckOfTheValueIsRefused) {
    connect();
    EXPECT_EQ(put(), 0);
    answer({serverRefused("no")});
    {
        const std::lock_guard lock(script->mutex);
        script->checks = {serverRefused("foreign")};
    }
    EXPECT_EQ(tagGet(), errorServerRefused);
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    EXPECT_EQ(script->takeMade(), (Made{"put t=1", "get t", "get t"}));
    EXPECT_EQ(script->opened, 2);
}

//  The service queries every 10 s. Each query fails and each repetition succeeds. Then at least every second cycle must
//  find the connection lost.
TEST_F(WorkerTagQuery, IfEachQueryFailsEachPauseExceedsTheServicesCycle) {
    connect();
    for (int cycle = 0; cycle < 5; ++cycle) {
        answer({serverRefused("no")});
        EXPECT_EQ(tagGet(), errorServerRefused);
        EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
        EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
        EXPECT_GE(pauses.take(), away) << cycle;
    }
}

TEST_F(WorkerTagQuery, OnlyTheFirstWaitAfterAFailedRequestIsLengthened) {
    connect();
    answer({serverRefused("no"), serverRefused("no"), serverRefused("no"), serverRefused("no")});
    EXPECT_EQ(tagGet(), errorServerRefused);
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    const int first = pauses.take();
    EXPECT_TRUE(first >= away && first <= away + 250) << first;
    for (const int base : {2000, 4000, 8000})
        expectBackoff(base);
}

TEST_F(WorkerTagQuery, AQueryInTheQueueAtAFailureCountsAsFailed) {
    connect();
    script->hold = true;
    answer({backendFailed("broken")});
    ASSERT_EQ(send("one"), 0);
    ASSERT_TRUE(eventually([&] { return script->served == 1; }));
    expireWaits = true;
    EXPECT_EQ(tagGet(), errorTimedOut);
    script->hold = false;
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    EXPECT_GE(pauses.take(), away);
    EXPECT_EQ(script->takeMade(), (Made{"send one", "get t", "send one"}));
}

//  The back end hangs in a place where the worker cannot end the wait, such as a system call on a failing disk.
TEST_F(WorkerTagQuery, AQueryAbandonedWhileTheBackEndHangsDisconnectsAtOnce) {
    connect();
    script->hold = true;
    ASSERT_EQ(send("one"), 0);
    ASSERT_TRUE(eventually([&] { return script->served == 1; }));
    expireWaits = true;
    EXPECT_EQ(tagGet(), errorTimedOut);
    EXPECT_EQ(events.count(), 1U);
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(tagGet(), errorNotConnected);
    expireWaits = false;
    script->hold = false;
    EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    EXPECT_EQ(script->takeMade(), (Made{"send one", "get t"}));
}

TEST_F(WorkerTagQuery, AnAbandonedQueryEndsTheExchangeAndTheConnection) {
    connect();
    skipBackoff = false;
    beSilent();
    giveUpCalls();
    EXPECT_EQ(tagGet(), errorTimedOut);
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(reports.take(), "rdbapi: fake: no answer");
}

TEST_F(WorkerTagQuery, AQueryAbandonedInTheQueueEndsTheExchangeAndTheConnection) {
    connect();
    skipBackoff = false;
    beSilent();
    ASSERT_EQ(send("one"), 0);
    ASSERT_TRUE(eventually([&] { return script->served == 1; }));
    expireWaits = true;
    EXPECT_EQ(tagGet(), errorTimedOut);
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);  // sent by the caller's thread at its time limit
    EXPECT_EQ(reports.take(), "rdbapi: fake: no answer");
    EXPECT_EQ(script->takeMade(), Made{"send one"});
}

TEST_F(WorkerTagQuery, AnAbandonedPutDoesNotDisconnect) {
    connect();
    skipBackoff = false;
    beSilent();
    giveUpCalls();
    EXPECT_EQ(put(), errorTimedOut);
    expireWaits = false;
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(tagGet(), 0);
    EXPECT_EQ(events.count(), 0U);
}

TEST_F(WorkerTagQuery, AnAnswerThatIsTooLateForTheCallerIsIgnored) {
    connect();
    script->hold = true;
    giveUpCalls();
    EXPECT_EQ(tagGet(), errorTimedOut);
    script->hold = false;
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(reports.take(), "rdbapi: fake: a request for a tag was not answered within 3 s");
    EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    EXPECT_EQ(script->takeMade(), (Made{"get t", "get t"}));
}

//  Without a limit the back end would wait for an hour.
TEST_F(WorkerTagQuery, ARepetitionHasTheSameTimeLimitAsACall) {
    connect();
    answer({serverRefused("no")});
    EXPECT_EQ(tagGet(), errorServerRefused);
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    pauses.take();
    answer({serverRefused("no")});
    beSilent();
    EXPECT_EQ(tagGet(), errorBackendFailed);
    EXPECT_EQ(pauses.take(), 3600000);
    EXPECT_GE(pauses.take(), away);
    EXPECT_EQ(pauses.take(), 3000);
}

}  // namespace
