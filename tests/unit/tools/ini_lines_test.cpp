#include "ini_lines.h"

#include "service_platform.h"
#include "service_support.h"

#include <random>

#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using namespace check;

class IniLines : public testing::Test {
protected:
    IniLines() { platform::reset(); }

    std::vector<IniLine> linesOf(const std::string& bytes) {
        CIniProbe probe;
        std::vector<IniLine> lines = readLines(bytes, probe);
        EXPECT_FALSE(probe.failed());
        return lines;
    }
};

TEST_F(IniLines, OnlyTheLineOfASettingSetsIt) {
    const auto lines = linesOf("# a = b\n[s]\nkey = v\n");
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_FALSE(lines[0].sets);
    EXPECT_FALSE(lines[1].sets);
    ASSERT_TRUE(lines[2].sets);
    EXPECT_EQ(lines[2].calls.back(), (IniCall{"", "key", "v"}));
    EXPECT_EQ(lines[2].number, 3U);
}

TEST_F(IniLines, FindsASettingAfterAHeaderOrComment) {
    EXPECT_TRUE(linesOf("[a=b]k=v").front().sets);
    EXPECT_TRUE(linesOf("# a=b\rk=v").front().sets);
    EXPECT_FALSE(linesOf("[a=b]# k=v").front().sets);
}

TEST_F(IniLines, AnUnfinishedKeyContinuesInTheNextLine) {
    const auto lines = linesOf("a b\n\nc\nk = v\n");
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0].left, "ab");
    EXPECT_EQ(lines[1].left, "");
    EXPECT_TRUE(lines[1].keeps_front);
    EXPECT_EQ(lines[2].left, "c");
    EXPECT_TRUE(lines[2].keeps_front);
    EXPECT_EQ(lines[3].key_front, 3U);
    EXPECT_EQ(lines[3].key_from, 1U);
    EXPECT_EQ(lines[3].calls.back().key, "abck");
    EXPECT_EQ(lines[3].left, "");
    EXPECT_FALSE(lines[3].keeps_front);
}

TEST_F(IniLines, AHeaderDiscardsAnUnfinishedKey) {
    const auto lines = linesOf("a\n[s]b\nk=v\n");
    EXPECT_FALSE(lines[1].keeps_front);
    EXPECT_EQ(lines[1].left, "b");
    EXPECT_EQ(lines[2].calls.back().key, "bk");
    EXPECT_EQ(lines[2].key_front, 1U);
    EXPECT_EQ(lines[2].key_from, 2U);
}

TEST_F(IniLines, AByteOrderMarkIsSkippedAtTheStartOnly) {
    const auto lines = linesOf("\xEF\xBB\xBFk=v\n\xEF\xBB\xBFk=v\n");
    EXPECT_EQ(lines[0].calls.back().key, "k");
    EXPECT_EQ(lines[1].calls.back().key, "\xEF\xBB\xBFk");
}

TEST_F(IniLines, TheRestOfTheLineStartsWithTheCharacterThatEndsTheValue) {
    EXPECT_EQ(linesOf("k = a=b ; c\n").front().rest, "; c");
    EXPECT_FALSE(linesOf("k = a ; c\n").front().glued);
    EXPECT_TRUE(linesOf("k = a; c\n").front().glued);
    EXPECT_EQ(linesOf("k = a\r\n").front().rest, "\r");
    EXPECT_EQ(linesOf("k = a\n").front().rest, "");
    EXPECT_TRUE(linesOf("k =#c\n").front().glued);
    EXPECT_FALSE(linesOf("k = #c\n").front().glued);
}

TEST_F(IniLines, TextBeforeACommentIsIgnored) {
    EXPECT_TRUE(linesOf("a ; b\n").front().drops_text);
    EXPECT_TRUE(linesOf("a [b]\n").front().drops_text);
    EXPECT_FALSE(linesOf("; b\n").front().drops_text);
    EXPECT_FALSE(linesOf("a = b ; c\n").front().drops_text);
    EXPECT_FALSE(linesOf("a\n; b\n").back().drops_text);
}

TEST_F(IniLines, FindsTheRightOneOfSeveralEqualsSigns) {
    const std::string front = "[a=b=c]  # = = \r";
    const IniLine line = linesOf(front + "k = 1=2=3 ; = =\n").front();
    ASSERT_TRUE(line.sets);
    EXPECT_EQ(line.calls.back().value, "1=2=3");
    EXPECT_EQ(line.rest, "; = =");
    EXPECT_FALSE(linesOf("[a=b=c] # = =\n").front().sets);
}

//  Returns the number of bytes that the reader processes: the sum of the sizes of all files in memory that it reads.
std::size_t bytesRead(const std::string& bytes) {
    std::size_t sum = 0;
    platform::hooks().ftruncate = [&sum](int file, off_t length) {
        sum += static_cast<std::size_t>(length);
        return static_cast<int>(syscall(SYS_ftruncate, file, length));
    };
    CIniProbe probe;
    readLines(bytes, probe);
    EXPECT_FALSE(probe.failed());
    platform::reset();
    return sum;
}

std::string repeated(const std::string& text, std::size_t times) {
    std::string all;
    for (; times > 0; --times)
        all += text;
    return all;
}

TEST_F(IniLines, TheWorkIsProportionalToTheLength) {
    struct Shape {
        std::string begin, repeat, end;
    };
    const Shape shapes[] = {
        {"", "ab\n", ""},     {"", "ab\n", "k=v\n"},  {"junk\n", "\n", "k=v\n"},  {"", "k=v # c\n", ""},
        {"", "a;\n", ""},     {"# ", "=", "\rk=v\n"}, {"[", "=", "]k=v\n"},       {"k = ", "=", "\n"},
        {"", "[=]", "k=v\n"}, {"", "a", "=v\n"},      {"junk\n", "a b\r", "k=v"}, {"", "[a]\n", ""},
    };
    for (const Shape& shape : shapes) {
        const std::size_t once = bytesRead(shape.begin + repeated(shape.repeat, 500) + shape.end);
        const std::size_t twice = bytesRead(shape.begin + repeated(shape.repeat, 1000) + shape.end);
        EXPECT_GT(once, 500 * shape.repeat.size());
        EXPECT_LT(static_cast<double>(twice), 2.4 * static_cast<double>(once)) << shape.begin + shape.repeat;
    }
}

TEST_F(IniLines, ReadingLineByLineYieldsTheKeysAndValuesOfTheWholeFile) {
    static constexpr char alphabet[] = "==;;##[[]]\n\n\n\n\r  \tabk'\"\0\xEF\xBB\xBF";
    std::mt19937 random(23213);
    std::uniform_int_distribution<std::size_t> length(0, 60), pick(0, std::size(alphabet) - 2);
    CIniProbe probe;
    for (int i = 0; i < 2000; ++i) {
        std::string bytes = i % 8 == 0 ? "\xEF\xBB\xBF" : "";
        for (std::size_t left = length(random); left > 0; --left)
            bytes += alphabet[pick(random)];
        std::vector<std::pair<std::string, std::string>> whole, pieces;
        for (const IniCall& call : probe.calls(bytes))
            whole.emplace_back(call.key, call.value);
        for (const IniLine& line : readLines(bytes, probe))
            for (const IniCall& call : line.calls)
                pieces.emplace_back(call.key, call.value);
        ASSERT_EQ(pieces, whole) << testing::PrintToString(bytes);
    }
    EXPECT_FALSE(probe.failed());
}

}  // namespace
