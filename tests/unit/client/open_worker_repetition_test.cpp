//  Calls that repeat data which the server has accepted: the library answers them itself while checks confirm the data.
//  In place of some checks, refreshes send the data again. The clock advances only when a test advances it; the worker
//  notices that at the next call.
#include "open_worker_fixture.h"

#include <algorithm>

namespace {

using namespace opentest;
using namespace rdbopen;
using Made = std::vector<std::string>;

class WorkerRepetition : public WorkerTest {
protected:
    void SetUp() override { script->checkSeconds = 60; }
    ~WorkerRepetition() override {
        randomNumber = lateNumber;
        maxSkippedWait = std::numeric_limits<int>::max();
    }
    //  Connects, imports the tag and puts 1. No wait of the worker is skipped, so a check becomes due only if the test
    //  advances the clock.
    void publish() {
        skipBackoff = false;
        connect();
        ASSERT_EQ(import(), 0);
        ASSERT_EQ(put("1"), 0);
        script->takeMade();
    }
    void answer(std::deque<Status> outcomes) {
        const std::lock_guard lock(script->mutex);
        script->requests = std::move(outcomes);
    }
    //  A probe fails, and the worker opens the back end again.
    void loseConnection() {
        {
            const std::lock_guard lock(script->mutex);
            script->probes = {backendFailed("lost")};
        }
        maxSkippedWait = 15000;  // skips the back-off, but not the wait for a check
        skipBackoff = true;
        advance(60);
        EXPECT_EQ(put("1"), 0);  // wakes the worker
        EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
        EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    }
    //  Advances the clock by the check interval and makes the worker notice the new time. The check ends with `result`.
    void check(const Status& result) {
        const int before = script->checksBegun;
        {
            const std::lock_guard lock(script->mutex);
            script->checks = {result};
        }
        advance(60);
        EXPECT_EQ(put("1"), 0);
        ASSERT_TRUE(eventually([&] { return script->checksBegun > before; }));
    }
};

TEST_F(WorkerRepetition, AnUnchangedPutIsAnsweredWithoutTheServer) {
    publish();
    EXPECT_EQ(put("1"), 0);
    EXPECT_EQ(script->takeMade(), Made{});
}

TEST_F(WorkerRepetition, ALookupIsAnsweredWithTheDefinitionThatTheServerHas) {
    publish();
    RdbTag tag = tagNamed("t");
    EXPECT_EQ(rdb_tagget(handle, &tag), 0);
    EXPECT_EQ(tag.tagclass, RDB_TAG_CLASS_USABLE);
    EXPECT_EQ(tag.valuetype, usableTag("t").valuetype);
    EXPECT_EQ(tag.importflag, usableTag("t").importflag);
    EXPECT_EQ(script->takeMade(), Made{});
}

TEST_F(WorkerRepetition, AnUnchangedMessageGetsItsOwnReplyWithoutTheServer) {
    publish();
    EXPECT_EQ(send("m:1"), 0);
    EXPECT_EQ(replies.take(), "done m:1");
    EXPECT_EQ(send("m:2"), 0);
    EXPECT_EQ(replies.take(), "again m:2");
    EXPECT_EQ(script->takeMade(), Made{"send m:1"});
}

TEST_F(WorkerRepetition, AChangedRequestAndAnImportAreSent) {
    publish();
    EXPECT_EQ(put("2"), 0);
    EXPECT_EQ(put("1"), 0);
    for (const char* const text : {"m", "n", "m"}) {
        EXPECT_EQ(send(text), 0);
        replies.take();
    }
    EXPECT_EQ(import(), 0);
    EXPECT_EQ(script->takeMade(), (Made{"put t=2", "put t=1", "send m", "send n", "send m", "import t"}));
}

TEST_F(WorkerRepetition, AConfirmationLastsForTheCheckInterval) {
    publish();
    advance(60);
    EXPECT_EQ(put("1"), 0);
    EXPECT_EQ(script->takeMade(), Made{});
}

TEST_F(WorkerRepetition, AConfirmationOlderThanTheCheckIntervalIsIgnored) {
    publish();
    advance(61);
    EXPECT_EQ(put("1"), 0);
    EXPECT_EQ(script->takeMade(), Made{"put t=1"});
}

TEST_F(WorkerRepetition, AnAnswerWithoutTheServerConfirmsNothing) {
    publish();
    for (const int seconds : {40, 21}) {
        EXPECT_EQ(script->takeMade(), Made{});
        advance(seconds);
        EXPECT_EQ(put("1"), 0);
    }
    EXPECT_EQ(script->takeMade(), Made{"put t=1"});
}

TEST_F(WorkerRepetition, ACheckConfirmsForAnotherInterval) {
    publish();
    check({});
    advance(60);
    EXPECT_EQ(put("1"), 0);
    EXPECT_EQ(script->takeMade(), Made{});
}

TEST_F(WorkerRepetition, AfterARefusedCheckTheNextRequestIsSent) {
    publish();
    check(serverRefused("foreign"));
    EXPECT_EQ(put("1"), 0);
    EXPECT_EQ(script->takeMade(), Made{"put t=1"});
}

TEST_F(WorkerRepetition, WhileOtherDataIsPendingARepetitionIsSent) {
    publish();
    answer({serverRefused("full")});
    EXPECT_EQ(send("m"), 0);
    replies.take();
    EXPECT_EQ(put("1"), 0);
    const Made made = script->takeMade();
    EXPECT_EQ(std::count(made.begin(), made.end(), "put t=1"), 1);
}

TEST_F(WorkerRepetition, ARefusedValueIsSentAgain) {
    publish();
    answer({serverRefused("full"), serverRefused("full")});
    EXPECT_EQ(put("2"), errorServerRefused);
    EXPECT_EQ(put("2"), errorServerRefused);
    EXPECT_EQ(put("1"), 0);
}

TEST_F(WorkerRepetition, WithoutChecksRepetitionsAreSent) {
    script->checkSeconds = 0;
    publish();
    EXPECT_EQ(tagGet(), 0);
    EXPECT_EQ(put("1"), 0);
    EXPECT_EQ(script->takeMade(), (Made{"get t", "put t=1"}));
}

//  After the failed import, the library repeats only the import. Its check of the new connection finds the value.
TEST_F(WorkerRepetition, TheFirstRequestOnANewConnectionIsSent) {
    script->checkSeconds = 600;
    publish();
    answer({backendFailed("lost")});
    maxSkippedWait = 15000;  // skips the back-off, but not the wait for a check
    skipBackoff = true;
    EXPECT_EQ(import(), errorBackendFailed);
    EXPECT_EQ(events.take(), RDB_EVENT_DISCONNECTED);
    EXPECT_EQ(events.take(), RDB_EVENT_CONNECTED);
    EXPECT_EQ(script->checksBegun, 1);
    EXPECT_EQ(script->takeMade(), (Made{"import t", "import t"}));
    EXPECT_EQ(put("1"), 0);
    EXPECT_EQ(put("1"), 0);
    EXPECT_EQ(script->takeMade(), Made{"put t=1"});
}

//  The refresh of the fake back end is a lookup and a put.
TEST_F(WorkerRepetition, ARefreshOfOneExchangeReplacesTheCheckOfANewConnectionAndTheFirstRequests) {
    script->refreshIsOneExchange = true;
    publish();
    loseConnection();
    EXPECT_EQ(script->checksBegun, 0);
    EXPECT_EQ(script->takeMade(), (Made{"get t", "put t=1"}));
    EXPECT_EQ(tagGet(), 0);
    EXPECT_EQ(put("1"), 0);
    EXPECT_EQ(script->takeMade(), Made{});
}

TEST_F(WorkerRepetition, ARefreshThatIsRefusedAtTheOpenIsRetried) {
    script->refreshIsOneExchange = true;
    publish();
    answer({{}, serverRefused("full")});
    loseConnection();
    EXPECT_TRUE(eventually([&] { return reports.count() >= 3; }));
    reports.take();  // the loss
    EXPECT_EQ(reports.take(), "rdbapi: fake: full");
    EXPECT_EQ(reports.take(), "rdbapi: fake: works again");
}

TEST_F(WorkerRepetition, AfterARefreshThatFailsAtTheOpenTheNextOpenSendsTheValue) {
    script->refreshIsOneExchange = true;
    publish();
    answer({{}, backendFailed("lost again")});
    loseConnection();
    EXPECT_EQ(script->opened, 3);
    EXPECT_EQ(script->takeMade(), (Made{"get t", "put t=1", "get t", "put t=1"}));
    EXPECT_EQ(events.count(), 0U);
    EXPECT_TRUE(eventually([] { return reports.count() == 3; }));
    EXPECT_EQ(reports.take(), "rdbapi: fake: lost");
    EXPECT_EQ(reports.take(), "rdbapi: fake: lost again");
    EXPECT_EQ(reports.take(), "rdbapi: fake: works again");
}

TEST_F(WorkerRepetition, TheFirstCheckComesAfterARandomPartOfTheInterval) {
    randomNumber = 4711;
    connect();
    EXPECT_EQ(pauses.take(), 4712);
    EXPECT_EQ(pauses.take(), 60000);
    EXPECT_EQ(pauses.take(), 60000);
}

TEST_F(WorkerRepetition, CallsDoNotDelayTheNextCheck) {
    publish();
    advance(59);
    EXPECT_EQ(put("2"), 0);
    advance(1);
    EXPECT_EQ(put("2"), 0);  // wakes the worker
    EXPECT_TRUE(eventually([&] { return script->checksBegun == 1; }));
}

TEST_F(WorkerRepetition, EachNinthCheckSendsTheDataAgain) {
    publish();
    const int before = script->served;
    for (int check = 1; check <= 18; ++check) {
        advance(60);
        EXPECT_EQ(put("1"), 0);  // wakes the worker
        const int refreshes = check / 9;
        ASSERT_TRUE(eventually([&] {
            return script->checksBegun == check - refreshes && script->served == before + 2 * refreshes;
        })) << check;
    }
    EXPECT_EQ(script->takeMade(), (Made{"get t", "put t=1", "get t", "put t=1"}));
}

TEST_F(WorkerRepetition, ARefreshThatTheServerRefusesIsRetried) {
    script->checkSeconds = 540;  // each check is a refresh
    publish();
    answer({{}, serverRefused("full")});
    advance(540);
    skipBackoff = true;
    EXPECT_EQ(put("1"), 0);
    ASSERT_TRUE(eventually([&] { return reports.count() >= 2; }));
    EXPECT_EQ(reports.take(), "rdbapi: fake: full");
    EXPECT_EQ(reports.take(), "rdbapi: fake: works again");
    const Made made = script->takeMade();
    ASSERT_GE(made.size(), 4U);
    EXPECT_EQ(Made(made.begin(), made.begin() + 4), (Made{"get t", "put t=1", "get t", "put t=1"}));
    EXPECT_EQ(events.count(), 0U);
}

}  // namespace
