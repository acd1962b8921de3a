//  RetrySchedule with times that the test passes. No thread runs, and the clock is not read.
#include "engine/retry_schedule.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <vector>

namespace {

using rdbopen::awayTime;
using rdbopen::RetrySchedule;
using rdbopen::steadyTime;
using std::chrono::milliseconds;
using std::chrono::seconds;

//  Checks that `wait` is `base` plus a random share of at most a quarter of `base`.
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
        fresh.connected(now, seconds(60), 1);
        expectBackoff(fresh.lost(now + held), seconds(base));
    }
}

TEST_F(Schedule, AFailedOpenAfterALongConnectionLengthensThePause) {
    schedule.connected(now, seconds(60), 1);
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
    schedule.connected(now, seconds(60), 1);
    static_cast<void>(schedule.lost(now + steadyTime));
    schedule.connected(now + steadyTime, seconds(60), 1);
    schedule.refused(now + steadyTime);
    expectBackoff(schedule.untilRetry(now + steadyTime), seconds(2));
}

TEST_F(Schedule, RefusalsDoNotLengthenThePauseBeforeAnOpen) {
    for (int refusal = 0; refusal < 8; ++refusal)
        schedule.refused(now);
    expectBackoff(schedule.lost(now), seconds(1));
}

TEST_F(Schedule, TheFirstChecksAreSpreadEvenlyOverTheInterval) {
    const std::uint32_t step = 7919;  // a prime, so that the numbers have all remainders
    std::vector<int> hosts(60);       // first checks in each second of the minute
    for (std::uint32_t i = 0; i < 60000; ++i) {
        schedule.connected(now, seconds(60), i * step);
        const milliseconds first = schedule.untilCheck(now);
        ASSERT_GT(first, milliseconds(0));
        ASSERT_LE(first, seconds(60));
        ++hosts[static_cast<std::size_t>((first.count() - 1) / 1000)];
    }
    for (const int count : hosts)
        EXPECT_NEAR(count, 1000, 5);
}

//  Hosts whose first checks are in the same second of the minute also spread their refreshes evenly over the nine
//  checks.
TEST_F(Schedule, TheFirstRefreshesAreSpreadEvenlyOverTheChecks) {
    std::vector<int> hosts(60 * 9);
    for (std::uint32_t number = 0; number < 540000; number += 100) {
        schedule.connected(now, seconds(60), number);
        const auto second = static_cast<std::size_t>((schedule.untilCheck(now).count() - 1) / 1000);
        std::size_t check = 0;
        while (!schedule.checked(now))
            ++check;
        ASSERT_LT(check, 9U);
        ++hosts[second * 9 + check];
    }
    for (const int count : hosts)
        EXPECT_EQ(count, 10);
}

TEST_F(Schedule, LaterChecksFollowAtTheIntervalEvenIfOneIsLate) {
    schedule.connected(now, seconds(60), 1);
    now += schedule.untilCheck(now);
    for (const auto& [late, left] : {std::pair(0, 60), std::pair(7, 53), std::pair(60, 60), std::pair(150, 30)}) {
        schedule.checked(now + seconds(late));
        EXPECT_EQ(schedule.untilCheck(now + seconds(late)), seconds(left)) << late;
        now += seconds(late + left);
    }
    EXPECT_EQ(schedule.untilCheck(now + seconds(1)), milliseconds(0));
}

TEST_F(Schedule, RefreshesAreAtMost540SecondsApart) {
    for (const auto& [interval, checks] :
         {std::pair(1, 540), std::pair(60, 9), std::pair(100, 5), std::pair(539, 1), std::pair(86400, 1)}) {
        schedule.connected(now, seconds(interval), 1);
        EXPECT_EQ(schedule.checkInterval(), std::min<milliseconds>(seconds(interval), seconds(540)));
        while (!schedule.checked(now)) {
        }
        for (int check = 1; check < checks; ++check)
            EXPECT_FALSE(schedule.checked(now)) << interval;
        EXPECT_TRUE(schedule.checked(now)) << interval;
    }
}

TEST_F(Schedule, AConnectionWithoutChecksHasNoInterval) {
    schedule.connected(now, seconds(60), 1);
    schedule.connected(now, seconds(0), 1);
    EXPECT_EQ(schedule.checkInterval(), seconds(0));
}

TEST_F(Schedule, DifferentSeedsYieldDifferentPauses) {
    RetrySchedule other{2};
    EXPECT_NE(schedule.lost(now), other.lost(now));
}

}  // namespace
