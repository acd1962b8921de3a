//  Tests of spare() and lengthen(): they let a caller write after the text, directly into the string's buffer.
#include "olk_string.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(StringSpare, IsNullWithoutABuffer) {
    olk::string s;
    EXPECT_EQ(s.spare(0), nullptr);
    EXPECT_EQ(s.spare(1), nullptr);
    EXPECT_EQ(s.data(), nullptr) << "no buffer is allocated";
}

TEST(StringSpare, IsTheEndOfTheText) {
    olk::string s("2001:db8::1");
    EXPECT_EQ(s.spare(1), s.data() + 11);
    EXPECT_EQ(s.size(), 11u);
}

TEST(StringSpare, EndsOneByteBeforeTheCapacity) {
    olk::string s("2001:db8::1");
    const size_t room = s.capacity() - 1 - s.size();
    EXPECT_NE(s.spare(room), nullptr);
    EXPECT_EQ(s.spare(room + 1), nullptr) << "the terminator needs the last byte";
}

TEST(StringSpare, IsNullForALengthThatWrapsAround) {
    olk::string s("2001:db8::1");
    for (const size_t length : {SIZE_MAX, SIZE_MAX - 10, SIZE_MAX - 11, size_t{1} << 32})
        EXPECT_EQ(s.spare(length), nullptr) << length;
}

TEST(StringSpare, LengthenAddsTheBytesWrittenThere) {
    olk::string s("2001:db8:");
    std::memcpy(s.spare(2), ":1", 2);
    s.lengthen(2);
    EXPECT_EQ(std::string(s.data(), s.size()), "2001:db8::1");
}

}  // namespace
