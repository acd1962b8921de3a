//  The worker's own actions: it repeats requests that failed or were refused, and checks whether the server still has
//  the data.
#include "open_worker_fixture.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

using namespace opentest;
using namespace rdbopen;
using Made = std::vector<std::string>;

class WorkerDesiredState : public WorkerTest {
protected:
    bool servedEventually(int count) {
        return eventually([&] { return script->served >= count; });
    }
    void fail(std::deque<Status> outcomes) {
        const std::lock_guard lock(script->mutex);
        script->requests = std::move(outcomes);
    }
    void refuseChecks(std::size_t count) {
        const std::lock_guard lock(script->mutex);
        script->checks.assign(count, serverRefused("foreign"));
    }
    std::size_t checksLeft() {
        const std::lock_guard lock(script->mutex);
        return script->checks.size();
    }
};

TEST_F(WorkerDesiredState, ALostPutIsRepeatedBeforeConnectedIsReported) {
    connect();
    fail({backendFailed("lost")});
    EXPECT_EQ(put("1"), errorBackendFailed);
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    EXPECT_EQ(script->takeMade(), (Made{"put t=1", "put t=1"}));
}

TEST_F(WorkerDesiredState, AConnectionThatFailsDuringTheRetryIsNotReported) {
    connect();
    fail({backendFailed("lost"), backendFailed("lost"), backendFailed("lost")});
    EXPECT_EQ(put("1"), errorBackendFailed);
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    EXPECT_EQ(script->opened, 4);
    EXPECT_EQ(events.count(), 0U);
    EXPECT_EQ(reports.take(), "rdbapi: fake: lost");
    EXPECT_EQ(reports.take(), "rdbapi: fake: works again");
    EXPECT_EQ(reports.count(), 0U);
}

TEST_F(WorkerDesiredState, ARefusedPutIsRepeatedWithGrowingWaitsWithoutReconnecting) {
    connect();
    fail({serverRefused("no right"), serverRefused("no right"), serverRefused("no right")});
    EXPECT_EQ(put("1"), errorServerRefused);
    ASSERT_TRUE(servedEventually(4));
    for (const int base : {1000, 2000, 4000})
        expectBackoff(base);
    EXPECT_EQ(events.count(), 0U);
    EXPECT_EQ(reports.take(), "rdbapi: fake: no right");
    EXPECT_EQ(reports.take(), "rdbapi: fake: works again");
    EXPECT_EQ(reports.count(), 0U);
}

TEST_F(WorkerDesiredState, OnlyTheNewestValueIsRetried) {
    connect();
    skipBackoff = false;
    fail({serverRefused("no right"), serverRefused("no right")});
    EXPECT_EQ(put("1"), errorServerRefused);
    EXPECT_EQ(put("2"), errorServerRefused);
    ASSERT_TRUE(servedEventually(3));
    EXPECT_EQ(script->takeMade(), (Made{"put t=1", "put t=2", "put t=2"}));
}

TEST_F(WorkerDesiredState, ASuccessfulRequestEndsTheRetry) {
    connect();
    skipBackoff = false;
    fail({serverRefused("no right")});
    EXPECT_EQ(put("1"), errorServerRefused);
    EXPECT_EQ(put("2"), 0);
    EXPECT_EQ(send("after"), 0);
    replies.take();
    EXPECT_EQ(script->takeMade(), (Made{"put t=1", "put t=2", "send after"}));
    EXPECT_EQ(reports.take(), "rdbapi: fake: no right");
    EXPECT_EQ(reports.take(), "rdbapi: fake: works again");
}

TEST_F(WorkerDesiredState, AMessageIsAnsweredOnceAndRetriedWithoutAReply) {
    connect();
    fail({serverRefused("REFUSED")});
    EXPECT_EQ(send("m"), 0);
    EXPECT_EQ(replies.take(), "done m");
    ASSERT_TRUE(servedEventually(2));
    EXPECT_EQ(send("end"), 0);
    EXPECT_EQ(replies.take(), "done end");
    EXPECT_EQ(script->takeMade(), (Made{"send m", "send m", "send end"}));
}

TEST_F(WorkerDesiredState, ARequestThatCanNeverSucceedIsNotRepeated) {
    connect();
    fail({{errorBadRequest, {}}});
    EXPECT_EQ(send("bad"), 0);
    replies.take();
    EXPECT_EQ(send("end"), 0);
    replies.take();
    EXPECT_EQ(script->takeMade(), (Made{"send bad", "send end"}));
}

//  A success after a final failure is not reported as a recovery.
TEST_F(WorkerDesiredState, AFinalFailureIsReportedOnceUntilASuccess) {
    connect();
    fail({{errorBadRequest, "no name"}, {errorBadRequest, "no name"}, {}, {errorBadRequest, "no name"}, {}});
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(send("m"), 0);
        replies.take();
    }
    EXPECT_EQ(send("end"), 0);
    replies.take();
    ASSERT_EQ(reports.count(), 2U);
    EXPECT_EQ(reports.take(), "rdbapi: fake: no name");
    EXPECT_EQ(reports.take(), "rdbapi: fake: no name");
}

TEST_F(WorkerDesiredState, AServerThatLostTheTagReceivesItAgain) {
    connect();
    EXPECT_EQ(import(), 0);
    fail({{errorNoSuchTag, {}}, {errorNoSuchTag, {}}});
    EXPECT_EQ(put("1"), errorNoSuchTag);
    ASSERT_TRUE(servedEventually(5));
    EXPECT_EQ(script->takeMade(), (Made{"import t", "put t=1", "put t=1", "import t", "put t=1"}));
}

TEST_F(WorkerDesiredState, AValueOfAnUnknownTagIsSentOnlyTwice) {
    connect();
    fail({{errorNoSuchTag, {}}, {errorNoSuchTag, {}}});
    EXPECT_EQ(put("1"), errorNoSuchTag);
    ASSERT_TRUE(servedEventually(2));
    EXPECT_EQ(send("end"), 0);
    replies.take();
    EXPECT_EQ(script->takeMade(), (Made{"put t=1", "put t=1", "send end"}));
}

TEST_F(WorkerDesiredState, AnAbandonedPutIsRetriedLater) {
    connect();
    script->hold = true;
    ASSERT_EQ(send("first"), 0);
    ASSERT_TRUE(servedEventually(1));
    expireWaits = true;
    EXPECT_EQ(put("1"), errorTimedOut);
    expireWaits = false;
    script->hold = false;
    ASSERT_TRUE(servedEventually(2));
    EXPECT_EQ(script->takeMade(), (Made{"send first", "put t=1"}));
}

TEST_F(WorkerDesiredState, ARequestInTheQueueAtAFailureIsSentAfterTheReconnection) {
    connect();
    script->hold = true;
    fail({backendFailed("broken")});
    ASSERT_EQ(send("one"), 0);
    ASSERT_TRUE(servedEventually(1));
    ASSERT_EQ(send("two"), 0);
    script->hold = false;
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    EXPECT_EQ(script->takeMade(), (Made{"send one", "send two"}));
}

TEST_F(WorkerDesiredState, ACheckThatFindsTheValueMissingPutsItAgain) {
    script->checkSeconds = 60;
    skipBackoff = false;
    connect();
    EXPECT_EQ(put("1"), 0);
    {
        const std::lock_guard lock(script->mutex);
        script->checks = {{errorNotHeld, {}}};
    }
    advance(60);
    EXPECT_EQ(put("1"), 0);  // wakes the worker
    ASSERT_TRUE(servedEventually(2));
    EXPECT_EQ(script->takeMade(), (Made{"put t=1", "put t=1"}));
}

TEST_F(WorkerDesiredState, AValueOnTheServerIsNotPutAgain) {
    script->checkSeconds = 60;
    skipBackoff = false;
    connect();
    EXPECT_EQ(put("1"), 0);
    for (int check = 1; check <= 3; ++check) {
        advance(60);
        EXPECT_EQ(put("1"), 0);  // wakes the worker
        ASSERT_TRUE(eventually([&] { return script->checksBegun == check; }));
    }
    EXPECT_EQ(script->served, 1);
}

//  The success of a request does not show that a refused check would pass. So a check follows each success until a
//  check passes. The only other check in this test is the first one on the new connection.
TEST_F(WorkerDesiredState, ARefusedCheckRecoversOnlyThroughACheck) {
    connect();
    EXPECT_EQ(put("1"), 0);
    refuseChecks(2);
    fail({backendFailed("lost")});
    EXPECT_EQ(tagGet(), errorBackendFailed);
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    EXPECT_EQ(reports.take(), "rdbapi: fake: lost");
    EXPECT_EQ(reports.take(), "rdbapi: fake: foreign");
    EXPECT_EQ(tagGet(), 0);
    ASSERT_TRUE(eventually([&] { return checksLeft() == 0; }));
    EXPECT_EQ(send("m"), 0);
    replies.take();
    EXPECT_EQ(reports.take(), "rdbapi: fake: works again");
    EXPECT_EQ(reports.count(), 0U);
}

TEST_F(WorkerDesiredState, ARefusedCheckIsReportedOnceUntilACheckSucceeds) {
    script->checkSeconds = 60;
    skipBackoff = false;
    connect();
    EXPECT_EQ(put("1"), 0);
    refuseChecks(3);
    skipBackoff = true;
    EXPECT_EQ(tagGet(), 0);  // wakes the worker
    EXPECT_EQ(reports.take(), "rdbapi: fake: foreign");
    EXPECT_EQ(reports.take(), "rdbapi: fake: works again");
    EXPECT_EQ(checksLeft(), 0U);
    EXPECT_EQ(reports.count(), 0U);
}

//  Each byte that is written to the pipe `begin` starts a check of the value that SetUp() has put. The check waits
//  until the test calls answer() or a call interrupts the check. All waits are real.
class WorkerCheck : public WorkerDesiredState {
protected:
    void SetUp() override {
        ASSERT_EQ(pipe2(begin, O_NONBLOCK), 0);
        ASSERT_EQ(pipe(answers), 0);
        skipBackoff = false;
        connect();
        ASSERT_EQ(put("1"), 0);
        script->takesByte = true;
        script->watched = begin[0];
        ASSERT_EQ(tagGet(), 0);  // wakes the worker, which watches the pipe from now on
        script->takeMade();
        script->checkWaits = answers[0];
    }
    ~WorkerCheck() override {
        rdb_disconnect(handle);
        rdb_destory(handle);
        workersEnded();
        for (const int descriptor : {begin[0], begin[1], answers[0], answers[1]})
            close(descriptor);
    }
    bool checkBegins() {
        const int before = script->checksBegun;
        return write(begin[1], "x", 1) == 1 && eventually([&] { return script->checksBegun > before; });
    }
    void answer() { ASSERT_EQ(write(answers[1], "x", 1), 1); }

    int begin[2];
    int answers[2];
};

TEST_F(WorkerCheck, IsInterruptedByACallWithoutAFailure) {
    ASSERT_TRUE(checkBegins());
    EXPECT_EQ(tagGet(), 0);
    EXPECT_EQ(events.count(), 0U);
    EXPECT_EQ(reports.count(), 0U);
}

class WorkerDueCheck : public WorkerCheck {
protected:
    WorkerDueCheck() { script->checkSeconds = 60; }
};

TEST_F(WorkerDueCheck, AnInterruptedCheckIsRepeatedWhenTheNextOneIsDue) {
    ASSERT_TRUE(checkBegins());
    script->checkWaits = -1;
    {
        const std::lock_guard lock(script->mutex);
        script->checks = {{errorNotHeld, {}}};
    }
    EXPECT_EQ(import(), 0);
    EXPECT_EQ(script->takeMade(), Made{"import t"});
    advance(60);
    EXPECT_EQ(import(), 0);  // wakes the worker
    ASSERT_TRUE(servedEventually(6));
    EXPECT_EQ(script->takeMade(), (Made{"import t", "get t", "put t=1"}));
    EXPECT_EQ(reports.count(), 0U);
}

//  The refusal of a check ends when a check succeeds. An interrupted check does not end it.
TEST_F(WorkerCheck, AnInterruptedCheckIsNotASuccess) {
    answer();
    refuseChecks(1);
    ASSERT_TRUE(checkBegins());
    EXPECT_EQ(reports.take(), "rdbapi: fake: foreign");
    ASSERT_TRUE(checkBegins());
    const int before = script->checksBegun;
    EXPECT_EQ(tagGet(), 0);
    ASSERT_TRUE(eventually([&] { return script->checksBegun > before; }));
    EXPECT_EQ(tagGet(), 0);
    EXPECT_EQ(reports.count(), 0U);
    answer();
    EXPECT_EQ(reports.take(), "rdbapi: fake: works again");
}

//  An interrupted check would leave the byte of answer() in the pipe.
TEST_F(WorkerCheck, ACallIsServedAfterACheckThatMustNotBeInterrupted) {
    script->checksArePreemptible = false;
    ASSERT_TRUE(checkBegins());
    ASSERT_EQ(send("x"), 0);
    answer();
    EXPECT_EQ(replies.take(), "done x");
    int left = -1;
    ASSERT_EQ(ioctl(answers[0], FIONREAD, &left), 0);
    EXPECT_EQ(left, 0);
    EXPECT_EQ(events.count(), 0U);
}

TEST_F(WorkerDesiredState, AnIdleConnectionThatTheServerClosesIsDetected) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    script->watched = ends[0];
    connect();
    {
        const std::lock_guard lock(script->mutex);
        script->probes = {{}, backendFailed("closed")};
    }
    EXPECT_EQ(tagGet(), 0);
    close(ends[1]);
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    rdb_disconnect(handle);
    ASSERT_TRUE(eventually([&] { return script->closed > 0; }));
    script->watched = -1;
    close(ends[0]);
}

}  // namespace
