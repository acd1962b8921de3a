#include "olk_string_watch.h"

#include <gtest/gtest.h>

namespace {

struct outcome {
    bool met;
    size_t position;
    std::string target;
    bool operator==(const outcome&) const = default;
};

outcome read(size_t from, char delimiter, const std::string& source) {
    olk::string target;
    const bool met = olk::read_until(from, delimiter, source.data(), source.size(), target);
    return outcome{met, from, text_of(target)};
}

TEST(ReadUntil, StopsJustAfterTheDelimiter) {
    EXPECT_EQ(read(0, '/', "a/b"), (outcome{true, 2, "a"}));
}

TEST(ReadUntil, ReadsToTheEndWhenNoDelimiterIsLeft) {
    EXPECT_EQ(read(2, '/', "a/b"), (outcome{false, 3, "b"}));
}

TEST(ReadUntil, ADelimiterAtTheStartAppendsNothing) {
    EXPECT_EQ(read(1, '/', "a/b"), (outcome{true, 2, ""}));
}

TEST(ReadUntil, ADelimiterAtTheEndIsFound) {
    EXPECT_EQ(read(0, '/', "ab/"), (outcome{true, 3, "ab"}));
}

TEST(ReadUntil, APositionAtTheEndStays) {
    EXPECT_EQ(read(3, '/', "a/b"), (outcome{false, 3, ""}));
    EXPECT_EQ(read(0, '/', ""), (outcome{false, 0, ""}));
}

TEST(ReadUntil, APositionBeyondTheEndStays) {
    EXPECT_EQ(read(9, '/', "a/b"), (outcome{false, 9, ""}));
}

TEST(ReadUntil, AppendsToTheTarget) {
    olk::string target("x");
    size_t position = 0;
    EXPECT_TRUE(olk::read_until(position, '/', "a/b", 3, target));
    EXPECT_FALSE(olk::read_until(position, '/', "a/b", 3, target));
    EXPECT_EQ(text_of(target), "xab");
}

TEST(ReadUntil, DoesNotReadBeyondTheLength) {
    olk::string target;
    size_t position = 0;
    EXPECT_FALSE(olk::read_until(position, '/', "ab/", 2, target));
    EXPECT_EQ(position, 2u);
}

TEST(ReadUntil, AZeroByteIsAnOrdinaryByte) {
    EXPECT_EQ(read(0, '/', std::string("a\0b/c", 5)), (outcome{true, 4, std::string("a\0b", 3)}));
    EXPECT_EQ(read(0, '\0', std::string("a\0b", 3)), (outcome{true, 2, "a"}));
}

}  // namespace
