//  RetrySchedule with times that the test passes. No thread runs, and the clock is not read.
#include "engine/retry_schedule.h"

#include <gtest/gtest.h>

namespace {

using rdbopen::awayTime;
using rdbopen::RetrySchedule;
using rdbopen::steadyTime;
using std::chrono::milliseconds;
using std::chrono::seconds;

//  Checks that wait is base plus a random share of at most a quarter of base.
void expectBackoff(milliseconds wait, milliseconds base) {
    EXPECT_GE(wait, base);
    EXPECT_LE(wait, base + base / 4);
}

class Schedule : public testing::Test {
protected:
    RetrySchedule schedule{1};
    milliseconds now = seconds(1000);
};

TEST_F(Schedule, EachLostConnectionDoublesThePauseUpTo48Seconds) {
    for (const int base : {1, 2, 4, 8, 16, 32, 48, 48})
        expectBackoff(schedule.lost(now), seconds(base));
}

TEST_F(Schedule, AConnectionOf60SecondsResetsThePauseAnd59999MsDoNot) {
    for (const auto& [held, base] : {std::pair(steadyTime - milliseconds(1), 2), std::pair(steadyTime, 1)}) {
        RetrySchedule fresh{1};
        static_cast<void>(fresh.lost(now));
        fresh.connected(now);
        expectBackoff(fresh.lost(now + held), seconds(base));
    }
}

TEST_F(Schedule, AFailedOpenAfterALongConnectionLengthensThePause) {
    schedule.connected(now);
    expectBackoff(schedule.lost(now + steadyTime), seconds(1));
    expectBackoff(schedule.lost(now + 2 * steadyTime), seconds(2));
}

TEST_F(Schedule, AfterAFailedTagRequestThePauseExceedsOneCycle) {
    schedule.tagRequestFailed();
    const milliseconds pause = schedule.lost(now);
    EXPECT_GE(pause, awayTime + seconds(1));
    EXPECT_LE(pause, awayTime + milliseconds(1250));
}

TEST_F(Schedule, AFailedTagRequestLengthensOnlyOnePause) {
    schedule.tagRequestFailed();
    static_cast<void>(schedule.lost(now));
    expectBackoff(schedule.lost(now), seconds(2));
}

TEST_F(Schedule, AFailedTagRequestDoesNotShortenALongBackoff) {
    for (int loss = 0; loss < 6; ++loss)
        static_cast<void>(schedule.lost(now));
    schedule.tagRequestFailed();
    expectBackoff(schedule.lost(now), seconds(48));
}

TEST_F(Schedule, ARetryIsDueAtOnceBeforeTheFirstRefusal) {
    EXPECT_EQ(schedule.untilRetry(now), milliseconds(0));
}

TEST_F(Schedule, EachRefusalDoublesTheTimeToTheNextRetry) {
    for (const int base : {1, 2, 4, 8, 16, 32, 48, 48}) {
        schedule.refused(now);
        expectBackoff(schedule.untilRetry(now), seconds(base));
    }
}

TEST_F(Schedule, TheTimeToARetryReachesZeroAndStaysZero) {
    schedule.refused(now);
    const milliseconds left = schedule.untilRetry(now);
    EXPECT_EQ(schedule.untilRetry(now + left - milliseconds(1)), milliseconds(1));
    EXPECT_EQ(schedule.untilRetry(now + left), milliseconds(0));
    EXPECT_EQ(schedule.untilRetry(now + left + seconds(100)), milliseconds(0));
}

TEST_F(Schedule, ASuccessResetsTheCountOfRefusals) {
    schedule.refused(now);
    schedule.refused(now);
    schedule.succeeded();
    schedule.refused(now);
    expectBackoff(schedule.untilRetry(now), seconds(1));
}

TEST_F(Schedule, AReconnectionDoesNotResetTheCountOfRefusals) {
    schedule.refused(now);
    schedule.connected(now);
    static_cast<void>(schedule.lost(now + steadyTime));
    schedule.connected(now + steadyTime);
    schedule.refused(now + steadyTime);
    expectBackoff(schedule.untilRetry(now + steadyTime), seconds(2));
}

TEST_F(Schedule, RefusalsDoNotLengthenThePauseBeforeAnOpen) {
    for (int refusal = 0; refusal < 8; ++refusal)
        schedule.refused(now);
    expectBackoff(schedule.lost(now), seconds(1));
}

TEST_F(Schedule, ACheckIsDueOneIntervalAfterTheLastExchange) {
    schedule.exchanged(now, seconds(60));
    EXPECT_EQ(schedule.untilCheck(now), seconds(60));
    schedule.exchanged(now + seconds(59), seconds(60));
    EXPECT_EQ(schedule.untilCheck(now + seconds(60)), seconds(59));
    EXPECT_EQ(schedule.untilCheck(now + seconds(119)), milliseconds(0));
}

TEST_F(Schedule, DifferentSeedsYieldDifferentPauses) {
    RetrySchedule other{2};
    EXPECT_NE(schedule.lost(now), other.lost(now));
}

}  // namespace
