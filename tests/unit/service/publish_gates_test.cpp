//  The three time limits of the publish cycle, to the second.
#include "service_publish.h"

#include <limits>

namespace {

using Gate = PublishTest;
using PutGate = PublishTest;
using SendGate = PublishTest;

struct Step {
    time_t seconds;
    bool passes;
};

TEST_F(Gate, ACycleRunsIfTheTimeDiffersFromTheLastOneByTenSeconds) {
    connect(true, true);
    constexpr Step steps[] = {{0, false},     {1, false},      {9, false},    {10, true},  {11, true},
                              {100000, true}, {-1, false},     {-8, false},   {-9, false}, {-10, true},
                              {-11, true},    {-100000, true}, {-start, true}};
    for (const Step& step : steps) {
        run.last_cycle_time = start;
        interfaces.asked = 0;
        cycle(start + step.seconds);
        EXPECT_EQ(interfaces.asked, step.passes ? 1 : 0) << step.seconds;
        EXPECT_EQ(run.last_cycle_time, step.passes ? start + step.seconds : start) << step.seconds;
    }
}

TEST_F(Gate, AClockSetBackBy9SecondsDelaysTheCycle) {
    connect(true, true);
    cycle(start);
    interfaces.asked = 0;
    for (time_t now = start - 9; now < start + 10; ++now)
        cycle(now);
    EXPECT_EQ(interfaces.asked, 0);
    cycle(start + 10);
    EXPECT_EQ(interfaces.asked, 1);
}

TEST_F(Gate, AtTheEpochTheFirstCycleRunsAfterTenSeconds) {
    connect(true, true);
    EXPECT_EQ(cycle(0), Lines{});
    EXPECT_EQ(cycle(9), Lines{});
    EXPECT_EQ(cycle(10).size(), 5U);
}

TEST_F(Gate, ExtremeClockSettingsAreSafe) {
    constexpr auto lowest = std::numeric_limits<time_t>::min();
    constexpr auto highest = std::numeric_limits<time_t>::max();
    connect(true, true);
    int expected = 0;
    for (const time_t now : {time_t{10}, time_t{2147483647}, time_t{2147483657}, time_t{4294967295}, time_t{4294967306},
                             time_t{-1}, time_t{-2147483649}, highest, lowest + 20, lowest, highest - 20,
                             time_t{0x7fffffffffffffff / 10 + 1}, time_t{1'744'350'000}}) {
        cycle(now);
        EXPECT_EQ(interfaces.asked, ++expected) << now;
        EXPECT_EQ(run.last_cycle_time, now);
    }
}

TEST_F(PutGate, RepeatsAfter600SecondsNot599) {
    connect(true, false);
    constexpr Step steps[] = {{10, false},   {599, false}, {600, true},  {601, true},    {-10, false},
                              {-599, false}, {-600, true}, {-601, true}, {1 << 30, true}};
    for (const Step& step : steps) {
        run.last_put_value.clear();
        run.last_cycle_time = 0;
        ASSERT_EQ(puts(start), 1U);
        EXPECT_EQ(puts(start + step.seconds), step.passes ? 1U : 0U) << step.seconds;
    }
}

TEST_F(PutGate, RepeatsAfter6000TenthsOfASecondNot5999) {
    connect(true, false);
    cycle(start);
    constexpr Step steps[] = {{5990, false},  {5999, false},  {6000, true},  {6001, true},
                              {-5990, false}, {-5999, false}, {-6000, true}, {-6001, true}};
    for (const Step& step : steps) {
        run.last_cycle_time = 0;
        run.snapshot.time = start * 10 - step.seconds;
        EXPECT_EQ(puts(start), step.passes ? 1U : 0U) << step.seconds;
    }
}

TEST_F(PutGate, AMarkOf0CausesAPut) {
    connect(true, false);
    cycle(start);
    run.snapshot.time = 0;
    EXPECT_EQ(puts(start + 10), 1U);
}

TEST_F(PutGate, ASkippedPutKeepsTheMark) {
    connect(true, false);
    cycle(start);
    cycle(start + 300);
    EXPECT_EQ(run.snapshot.time, start * 10);
}

TEST_F(PutGate, RepeatsEverySixtiethCycleOfTenSeconds) {
    connect(true, false);
    std::size_t count = 0;
    for (time_t now = start; now < start + 6000; now += 10)
        count += puts(now);
    EXPECT_EQ(count, 10U);
}

TEST_F(PutGate, RepeatsInTheFirstCycleAfter600Seconds) {
    connect(true, false);
    cycle(start);
    time_t now = start;
    do
        now += 11;
    while (puts(now) == 0);
    EXPECT_EQ(now - start, 605);
}

TEST_F(SendGate, RepeatsAfter600SecondsNot599) {
    connect(false, true);
    constexpr Step steps[] = {{10, false},   {599, false}, {600, true},  {601, true},    {-10, false},
                              {-599, false}, {-600, true}, {-601, true}, {1 << 30, true}};
    for (const Step& step : steps) {
        run.last_sent_value.clear();
        run.last_cycle_time = 0;
        ASSERT_EQ(requests(start), 1U);
        EXPECT_EQ(requests(start + step.seconds), step.passes ? 1U : 0U) << step.seconds;
    }
}

TEST_F(SendGate, ASkippedRequestKeepsTheTime) {
    connect(false, true);
    cycle(start);
    cycle(start + 300);
    EXPECT_EQ(run.last_sent_time, start);
}

TEST_F(SendGate, IsIndependentOfThePutGate) {
    connect(false, true);
    cycle(start);
    connect(true, true);
    EXPECT_EQ(requests(start + 300), 0U);
    EXPECT_EQ(requests(start + 600), 1U);
    EXPECT_EQ(puts(start + 899), 0U);
    EXPECT_EQ(puts(start + 909), 1U);
}

TEST_F(Gate, BothRefreshesWorkFarAfter2038) {
    constexpr time_t far = time_t{1} << 40;
    connect(true, true);
    EXPECT_EQ(cycle(far).size(), 5U);
    EXPECT_EQ(cycle(far + 599), Lines{});
    EXPECT_EQ(cycle(far + 609).size(), 5U);
}

TEST_F(Gate, BothRefreshesWorkBeforeTheEpoch) {
    connect(true, true);
    EXPECT_EQ(cycle(-5000).size(), 5U);
    EXPECT_EQ(cycle(-4401), Lines{});
    EXPECT_EQ(cycle(-4391).size(), 5U);
}

}  // namespace
