#include "engine/reported_reasons.h"

#include <gtest/gtest.h>

namespace {

using rdbopen::ReportedReasons;

TEST(ReportedReasons, EachIsNewOnce) {
    ReportedReasons reasons;
    EXPECT_TRUE(reasons.empty());
    for (const char* reason : {"a", "b", "c"})
        EXPECT_TRUE(reasons.add(reason));
    for (const char* reason : {"b", "a", "c"})
        EXPECT_FALSE(reasons.add(reason));
    EXPECT_FALSE(reasons.empty());
}

TEST(ReportedReasons, AllAreNewAfterClear) {
    ReportedReasons reasons;
    reasons.add("a");
    reasons.clear();
    EXPECT_TRUE(reasons.empty());
    EXPECT_TRUE(reasons.add("a"));
}

TEST(ReportedReasons, TheOldestIsReplacedByOneMoreThanTheCapacity) {
    ReportedReasons reasons;
    for (std::size_t i = 0; i <= ReportedReasons::capacity; ++i)
        EXPECT_TRUE(reasons.add(std::string(i + 1, 'x')));
    for (std::size_t i = 1; i <= ReportedReasons::capacity; ++i)
        EXPECT_FALSE(reasons.add(std::string(i + 1, 'x'))) << i;
    EXPECT_TRUE(reasons.add("x"));
}

}  // namespace
