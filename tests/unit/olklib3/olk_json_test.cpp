#include "olk_json.h"

#include "olk_json_support.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

//  Number of calls of snprintf; the decimal writers must not call it.
int formatted_outputs;

std::string escaped(char c) {
    return written([=](olk::string& out) { olk::outJsonEsc(c, out); });
}

std::string value(const std::string& text) {
    return written([&](olk::string& out) { olk::writeString(text.data(), text.size(), out); });
}

template <class NUMBER>
std::string decimal(NUMBER number) {
    return written([=](olk::string& out) { olk::writeDecimal(number, out); });
}

olk::string pooled(const std::string& text) {
    return olk::string(text.data(), text.size());
}

//  Returns the member "key" with this value.
std::string member(uint32_t* members, const std::string& text) {
    return written([&](olk::string& out) { olk::writeStringMember(members, "key", pooled(text), out); });
}

std::string array(uint32_t* members, const std::vector<std::string>& texts) {
    olk::vector_<olk::string> list;
    for (const std::string& text : texts)
        list.push_back(pooled(text));
    return written([&](olk::string& out) { olk::writeStringArrayMember(members, "key", list, out); });
}

TEST(JsonEscape, Backspace) {
    EXPECT_EQ(escaped(8), "\\b");
}
TEST(JsonEscape, Tab) {
    EXPECT_EQ(escaped(9), "\\t");
}
TEST(JsonEscape, LineFeed) {
    EXPECT_EQ(escaped(10), "\\n");
}
TEST(JsonEscape, FormFeed) {
    EXPECT_EQ(escaped(12), "\\f");
}
TEST(JsonEscape, CarriageReturn) {
    EXPECT_EQ(escaped(13), "\\r");
}
TEST(JsonEscape, DoubleQuote) {
    EXPECT_EQ(escaped('"'), "\\\"");
}
TEST(JsonEscape, Slash) {
    EXPECT_EQ(escaped('/'), "\\/");
}
TEST(JsonEscape, Backslash) {
    EXPECT_EQ(escaped('\\'), "\\\\");
}

TEST(JsonEscape, EveryOtherByteIsUnchanged) {
    const std::string escapes = "\b\t\n\f\r\"/\\";
    for (int byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        if (escapes.find(c) == std::string::npos) {
            EXPECT_EQ(escaped(c), std::string(1, c)) << "byte " << byte;
        }
    }
}

TEST(JsonEscape, VerticalTabDelAndHighBytesAreNotEscaped) {
    EXPECT_EQ(escaped(11), "\x0b");
    EXPECT_EQ(escaped(127), "\x7f");
    EXPECT_EQ(escaped('\x80'), "\x80");
    EXPECT_EQ(escaped('\xff'), "\xff");
    EXPECT_EQ(escaped(0), std::string(1, '\0'));
    EXPECT_EQ(escaped(31), "\x1f");
}

TEST(JsonEscape, AppendsToExistingText) {
    EXPECT_EQ(written([](olk::string& out) {
                  out.append("ab");
                  olk::outJsonEsc('\n', out);
              }),
              "ab\\n");
}

TEST(JsonPlain, OnlyEightCharactersNeedAnEscape) {
    for (int byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        EXPECT_EQ(olk::isJsonPlain(&c, 1), escaped(c).size() == 1) << "byte " << byte;
    }
}

TEST(JsonPlain, TestsEveryCharacterOfTheLength) {
    EXPECT_FALSE(olk::isJsonPlain("/bc", 3));
    EXPECT_FALSE(olk::isJsonPlain("a/c", 3));
    EXPECT_FALSE(olk::isJsonPlain("ab/", 3));
    EXPECT_TRUE(olk::isJsonPlain("ab/", 2));
    EXPECT_TRUE(olk::isJsonPlain("a\0b", 3));
    EXPECT_FALSE(olk::isJsonPlain("a\0/", 3));
}

TEST(JsonPlain, AnEmptyTextNeedsNoEscape) {
    EXPECT_TRUE(olk::isJsonPlain("", 0));
}

TEST(JsonString, IsInDoubleQuotes) {
    EXPECT_EQ(value("host1"), "\"host1\"");
    EXPECT_EQ(value(""), "\"\"");
}

TEST(JsonString, ASlashGetsABackslash) {
    EXPECT_EQ(value("a/b"), "\"a\\/b\"");
}

TEST(JsonString, AVerticalTabIsUnchanged) {
    EXPECT_EQ(value("a\x0b"
                    "b"),
              "\"a\x0b"
              "b\"");
}

TEST(JsonString, AllEightCharactersAreEscapedInOneText) {
    EXPECT_EQ(value("\b\t\n\f\r\"/\\"), "\"\\b\\t\\n\\f\\r\\\"\\/\\\\\"");
}

TEST(JsonString, HighBytesNextToAnEscapeAreUnchanged) {
    EXPECT_EQ(value("\xc3\xa9/\xff"), "\"\xc3\xa9\\/\xff\"");
}

TEST(JsonString, APlainTextIsAppendedInOnePiece) {
    olk::string out;
    olk::writeString(std::string(1000, 'x').data(), 1000, out);
    EXPECT_EQ(out.capacity(), 2040u) << "one growth for 1001 bytes; byte by byte it is 1016";
}

TEST(JsonString, ATextWithAnEscapeIsAppendedByteByByte) {
    olk::string out;
    const std::string text = std::string(998, 'x') + "/";
    olk::writeString(text.data(), text.size(), out);
    EXPECT_EQ(out.capacity(), 1016u);
}

TEST(JsonMember, TheFirstHasNoComma) {
    uint32_t members = 0;
    EXPECT_EQ(member(&members, "v"), "\"key\":\"v\"");
    EXPECT_EQ(members, 1u);
}

TEST(JsonMember, TheNextHasAComma) {
    uint32_t members = 1;
    EXPECT_EQ(member(&members, "v"), ",\"key\":\"v\"");
    EXPECT_EQ(members, 2u);
}

TEST(JsonMember, AnEmptyValueWritesAndCountsNothing) {
    uint32_t members = 0;
    EXPECT_EQ(member(&members, ""), "");
    EXPECT_EQ(members, 0u);
    EXPECT_EQ(member(&members, "v"), "\"key\":\"v\"") << "the next member is the first";
}

TEST(JsonMember, TheValueIsEscaped) {
    uint32_t members = 0;
    EXPECT_EQ(member(&members, "a\"b"), "\"key\":\"a\\\"b\"");
}

TEST(JsonMember, TheKeyIsNotEscaped) {
    uint32_t members = 0;
    EXPECT_EQ(written([&](olk::string& out) { olk::writeStringMember(&members, "a/\"b", pooled("v"), out); }),
              "\"a/\"b\":\"v\"");
    EXPECT_EQ(written([&](olk::string& out) {
                  const olk::vector_<olk::string> none;
                  olk::writeStringArrayMember(&members, "a/b", none, out);
              }),
              ",\"a/b\":[]");
}

TEST(JsonArray, HoldsItsElementsWithCommasBetween) {
    uint32_t members = 0;
    EXPECT_EQ(array(&members, {"a"}), "\"key\":[\"a\"]");
    EXPECT_EQ(array(&members, {"a", "b", "c"}), ",\"key\":[\"a\",\"b\",\"c\"]");
    EXPECT_EQ(members, 2u);
}

TEST(JsonArray, AnEmptyListIsWrittenAndCounted) {
    uint32_t members = 0;
    EXPECT_EQ(array(&members, {}), "\"key\":[]");
    EXPECT_EQ(members, 1u);
}

TEST(JsonArray, AnEmptyElementIsWritten) {
    uint32_t members = 0;
    EXPECT_EQ(array(&members, {"", "a", ""}), "\"key\":[\"\",\"a\",\"\"]");
}

TEST(JsonArray, ElementsAreEscaped) {
    uint32_t members = 0;
    EXPECT_EQ(array(&members, {"2001:db8::/32", "b\n"}), "\"key\":[\"2001:db8::\\/32\",\"b\\n\"]");
}

TEST(JsonSeparator, IsACommaOnlyAfterAMember) {
    uint32_t members = 0;
    EXPECT_EQ(written([&](olk::string& out) {
                  for (int i = 0; i < 3; ++i)
                      olk::writeSeparator(&members, out);
              }),
              ",,");
    EXPECT_EQ(members, 3u);
}

TEST(JsonDecimal, Signed32Bit) {
    EXPECT_EQ(decimal(int32_t{0}), "0");
    EXPECT_EQ(decimal(int32_t{7}), "7");
    EXPECT_EQ(decimal(int32_t{-1}), "-1");
    EXPECT_EQ(decimal(std::numeric_limits<int32_t>::max()), "2147483647");
    EXPECT_EQ(decimal(std::numeric_limits<int32_t>::min()), "-2147483648");
}

TEST(JsonDecimal, Unsigned32Bit) {
    EXPECT_EQ(decimal(uint32_t{0}), "0");
    EXPECT_EQ(decimal(uint32_t{8443}), "8443");
    EXPECT_EQ(decimal(std::numeric_limits<uint32_t>::max()), "4294967295");
}

TEST(JsonDecimal, Signed64Bit) {
    EXPECT_EQ(decimal(int64_t{0}), "0");
    EXPECT_EQ(decimal(int64_t{-10}), "-10");
    EXPECT_EQ(decimal(std::numeric_limits<int64_t>::max()), "9223372036854775807");
    EXPECT_EQ(decimal(std::numeric_limits<int64_t>::min()), "-9223372036854775808");
}

TEST(JsonDecimal, AgreesWithTheStandardLibraryAtEveryLength) {
    std::mt19937_64 random(20250411);
    for (int i = 0; i < 100000; ++i) {
        const auto number = static_cast<int64_t>(random() >> (i % 64));
        ASSERT_EQ(decimal(number), std::to_string(number));
        ASSERT_EQ(decimal(-(number >> 1)), std::to_string(-(number >> 1)));
        ASSERT_EQ(decimal(static_cast<uint32_t>(number)), std::to_string(static_cast<uint32_t>(number)));
        ASSERT_EQ(decimal(static_cast<int32_t>(number)), std::to_string(static_cast<int32_t>(number)));
    }
}

TEST(JsonDecimal, NeedsNoFormattedOutput) {
    const int before = formatted_outputs;
    decimal(int32_t{-12345});
    decimal(uint32_t{12345});
    decimal(std::numeric_limits<int64_t>::min());
    EXPECT_EQ(formatted_outputs, before);
}

TEST(JsonDecimal, IsAppendedInOnePiece) {
    olk::string out;
    olk::writeDecimal(std::numeric_limits<int64_t>::max(), out);
    EXPECT_EQ(out.capacity(), 56u) << "one growth for 19 bytes; byte by byte it is 24";
}

}  // namespace

extern "C" int __wrap_snprintf(char* text, size_t size, const char* format, ...) {
    ++formatted_outputs;
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(text, size, format, args);
    va_end(args);
    return length;
}
