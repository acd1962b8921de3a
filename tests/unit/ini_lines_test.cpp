#include "ini_lines.h"

#include "service_platform.h"
#include "service_support.h"

#include <random>

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

TEST_F(IniLines, ASettingStandsInTheLineOfItsEqualsSign) {
    const auto lines = linesOf("# a = b\n[s]\nkey = v\n");
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_FALSE(lines[0].sets);
    EXPECT_FALSE(lines[1].sets);
    ASSERT_TRUE(lines[2].sets);
    EXPECT_EQ(lines[2].calls.back(), (IniCall{"", "key", "v"}));
    EXPECT_EQ(lines[2].number, 3U);
}

TEST_F(IniLines, ASettingBehindAHeaderOrAnEndedCommentIsFound) {
    EXPECT_TRUE(linesOf("[a=b]k=v").front().sets);
    EXPECT_TRUE(linesOf("# a=b\rk=v").front().sets);
    EXPECT_FALSE(linesOf("[a=b]# k=v").front().sets);
}

TEST_F(IniLines, TheFrontOfAKeyGoesFromLineToLine) {
    const auto lines = linesOf("a b\n\nc\nk = v\n");
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0].carry, "ab");
    EXPECT_EQ(lines[1].carry, "ab");
    EXPECT_EQ(lines[2].carry, "abc");
    EXPECT_EQ(lines[3].carried, "abc");
    EXPECT_EQ(lines[3].carried_from, 1U);
    EXPECT_EQ(lines[3].calls.back().key, "abck");
    EXPECT_EQ(lines[3].carry, "");
}

TEST_F(IniLines, AByteOrderMarkIsSkippedAtTheStartOnly) {
    const auto lines = linesOf("\xEF\xBB\xBFk=v\n\xEF\xBB\xBFk=v\n");
    EXPECT_EQ(lines[0].calls.back().key, "k");
    EXPECT_EQ(lines[1].calls.back().key, "\xEF\xBB\xBFk");
}

TEST_F(IniLines, WhatIsBehindAValueBeginsWithTheSignThatEndsIt) {
    EXPECT_EQ(linesOf("k = a=b ; c\n").front().behind, "; c");
    EXPECT_FALSE(linesOf("k = a ; c\n").front().glued);
    EXPECT_TRUE(linesOf("k = a; c\n").front().glued);
    EXPECT_EQ(linesOf("k = a\r\n").front().behind, "\r");
    EXPECT_EQ(linesOf("k = a\n").front().behind, "");
    EXPECT_TRUE(linesOf("k =#c\n").front().glued);
    EXPECT_FALSE(linesOf("k = #c\n").front().glued);
}

TEST_F(IniLines, TextInFrontOfACommentIsDropped) {
    EXPECT_TRUE(linesOf("a ; b\n").front().drops_text);
    EXPECT_TRUE(linesOf("a [b]\n").front().drops_text);
    EXPECT_FALSE(linesOf("; b\n").front().drops_text);
    EXPECT_FALSE(linesOf("a = b ; c\n").front().drops_text);
    EXPECT_FALSE(linesOf("a\n; b\n").back().drops_text);
}

TEST_F(IniLines, TogetherMakeTheCallsOfTheWholeFile) {
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
