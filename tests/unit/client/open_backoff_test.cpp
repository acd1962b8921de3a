#include "engine/retry_schedule.h"

#include <gtest/gtest.h>

namespace {

using rdbopen::backoffDelay;
using std::chrono::milliseconds;

//  The wait without its random share, for several numbers of consecutive failures.
constexpr struct {
    unsigned failures;
    int base;  // ms
} rows[] = {{1, 1000},  {2, 2000},  {3, 4000},   {4, 8000},   {5, 16000},       {6, 32000},         {7, 48000},
            {8, 48000}, {9, 48000}, {31, 48000}, {33, 48000}, {1000000, 48000}, {0xffffffff, 48000}};

TEST(Backoff, EachFurtherFailureDoublesTheWaitUpTo48Seconds) {
    for (const auto& row : rows)
        EXPECT_EQ(backoffDelay(row.failures, 0), milliseconds(row.base)) << row.failures;
}

TEST(Backoff, TheAddedRandomShareIsAtMostAQuarter) {
    for (const auto& row : rows) {
        const auto most = static_cast<std::uint32_t>(row.base / 4);
        EXPECT_EQ(backoffDelay(row.failures, 1), milliseconds(row.base + 1)) << row.failures;
        EXPECT_EQ(backoffDelay(row.failures, most), milliseconds(row.base + row.base / 4)) << row.failures;
        EXPECT_EQ(backoffDelay(row.failures, most + 1), milliseconds(row.base)) << row.failures;
    }
}

TEST(Backoff, EveryWaitIsAtLeastItsBaseAndAtMostAQuarterLonger) {
    for (const auto& row : rows)
        for (std::uint32_t random = 0; random < 100000; random += 997) {
            EXPECT_GE(backoffDelay(row.failures, random), milliseconds(row.base)) << row.failures;
            EXPECT_LE(backoffDelay(row.failures, random), milliseconds(row.base * 5 / 4)) << row.failures;
        }
}

}  // namespace
