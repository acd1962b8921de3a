#include "backoff.h"

#include <gtest/gtest.h>

namespace {

using rdbopen::backoffDelay;
using std::chrono::milliseconds;

TEST(Backoff, TheFirstWaitIsOneSecond) {
    for (const std::uint32_t random : {0U, 1U, 12345U, 0xffffffffU})
        EXPECT_EQ(backoffDelay(1, random), milliseconds(1000));
}

TEST(Backoff, EachFurtherFailureDoublesTheLongestWait) {
    //  The random number that asks for the whole share: the size of the range less one.
    EXPECT_EQ(backoffDelay(2, 500), milliseconds(2000));
    EXPECT_EQ(backoffDelay(3, 1000), milliseconds(4000));
    EXPECT_EQ(backoffDelay(4, 2000), milliseconds(8000));
    EXPECT_EQ(backoffDelay(5, 4000), milliseconds(16000));
    EXPECT_EQ(backoffDelay(6, 8000), milliseconds(32000));
    EXPECT_EQ(backoffDelay(7, 15000), milliseconds(60000));
}

TEST(Backoff, TheShareIsUpToAQuarterLess) {
    EXPECT_EQ(backoffDelay(2, 0), milliseconds(1500));
    EXPECT_EQ(backoffDelay(7, 0), milliseconds(45000));
}

TEST(Backoff, AnyWaitIsBetweenOneAndSixtySeconds) {
    for (const unsigned failures : {1U, 2U, 3U, 6U, 7U, 8U, 31U, 32U, 33U, 64U, 1000000U, 0xffffffffU})
        for (std::uint32_t random = 0; random < 100000; random += 997) {
            EXPECT_GE(backoffDelay(failures, random), milliseconds(1000)) << failures;
            EXPECT_LE(backoffDelay(failures, random), milliseconds(60000)) << failures;
        }
}

}  // namespace
