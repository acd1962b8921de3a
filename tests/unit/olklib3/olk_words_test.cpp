#include "olk_words.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

namespace {

using olk::word_end;

struct outcome {
    word_end end;
    std::string word;
    size_t position;
    bool operator==(const outcome&) const = default;
};

std::ostream& operator<<(std::ostream& out, const outcome& o) {
    return out << "end " << static_cast<int>(o.end) << " word \"" << o.word << "\" position " << o.position;
}

outcome read(const std::string& text, const char* separators, size_t from = 0) {
    char word[olk::word_size];
    std::memset(word, 'x', sizeof word);
    const word_end end = olk::read_word(text.data(), text.size(), from, separators, word);
    return outcome{end, std::string(word, strnlen(word, sizeof word)), from};
}

std::string word_of(const std::string& text, const char* separators = ":/") {
    return read(text, separators).word;
}

TEST(Words, TheBufferHolds16Bytes) {
    EXPECT_EQ(olk::word_size, 16u);
}

TEST(Words, AWordEndsAtTheFirstSeparator) {
    EXPECT_EQ(read("udp://host", ":/"), (outcome{word_end::separator, "udp", 4}));
    EXPECT_EQ(read("udp/host:1", ":/"), (outcome{word_end::separator, "udp", 4}));
}

TEST(Words, AWordEndsAtTheEndOfTheText) {
    EXPECT_EQ(read("stdout", ":/"), (outcome{word_end::text_end, "stdout", 6}));
}

TEST(Words, ReadingContinuesAfterTheSeparator) {
    const std::string text = "level=dbg&x=1";
    EXPECT_EQ(read(text, "="), (outcome{word_end::separator, "level", 6}));
    EXPECT_EQ(read(text, "&", 6), (outcome{word_end::separator, "dbg", 10}));
    EXPECT_EQ(read(text, "=", 10), (outcome{word_end::separator, "x", 12}));
    EXPECT_EQ(read(text, "&", 12), (outcome{word_end::text_end, "1", 13}));
    EXPECT_EQ(read(text, "=", 13), (outcome{word_end::none, "", 13}));
}

TEST(Words, LeadingBlanksAreSkipped) {
    EXPECT_EQ(word_of(" \t udp:"), "udp");
}

TEST(Words, TrailingBlanksAreRemoved) {
    EXPECT_EQ(word_of("udp \t :"), "udp");
    EXPECT_EQ(word_of("udp \t "), "udp");
}

TEST(Words, BlanksInsideAreKept) {
    EXPECT_EQ(word_of("u d\tp:"), "u d\tp");
}

TEST(Words, CarriageReturnsAndLineFeedsAreIgnoredEverywhere) {
    EXPECT_EQ(word_of("\r\nu\rd\np\r\n:"), "udp");
    EXPECT_EQ(word_of("\n \r udp \n:"), "udp");
}

TEST(Words, ASeparatorBeforeTheWordIsSkipped) {
    EXPECT_EQ(read("://udp:x", ":/"), (outcome{word_end::separator, "udp", 7}));
    EXPECT_EQ(read(" = =level=1", "="), (outcome{word_end::separator, "level", 10}));
}

TEST(Words, BlanksAfterASkippedSeparatorAreSkippedToo) {
    EXPECT_EQ(word_of(": \t/ udp:"), "udp");
}

TEST(Words, OnlyLineEndsAreNotAWord) {
    EXPECT_EQ(read("\r\n=x=", "="), (outcome{word_end::separator, "x", 5}));
}

TEST(Words, FifteenCharactersAreAWord) {
    EXPECT_EQ(read("123456789012345:", ":"), (outcome{word_end::separator, "123456789012345", 16}));
    EXPECT_EQ(read("123456789012345", ":"), (outcome{word_end::text_end, "123456789012345", 15}));
}

TEST(Words, SixteenCharactersAreNotAWord) {
    EXPECT_EQ(read("1234567890123456:", ":").end, word_end::none);
    EXPECT_EQ(read("1234567890123456:", ":").word, "");
    EXPECT_EQ(read("1234567890123456", ":").end, word_end::none);
}

TEST(Words, ABlankAfterFifteenCharactersCountsAsTheSixteenth) {
    EXPECT_EQ(read("123456789012345 :", ":").end, word_end::none);
    EXPECT_EQ(read("12345678901234 :", ":").word, "12345678901234");
}

TEST(Words, LeadingLineEndsAndBlanksDoNotCount) {
    EXPECT_EQ(word_of("    \r\n 1234567\r\n89012345\r\n:"), "123456789012345");
}

TEST(Words, AnEmptyTextIsNotAWord) {
    EXPECT_EQ(read("", ":/"), (outcome{word_end::none, "", 0}));
}

TEST(Words, OnlyBlanksLineEndsAndSeparatorsAreNotAWord) {
    EXPECT_EQ(read(" \t\r\n:/ ", ":/"), (outcome{word_end::none, "", 7}));
}

TEST(Words, AZeroByteIsNotASeparator) {
    const std::string text("a\0b:", 4);
    char word[olk::word_size];
    size_t position = 0;
    EXPECT_EQ(olk::read_word(text.data(), text.size(), position, ":", word), word_end::separator);
    EXPECT_EQ(std::string(word, 4), std::string("a\0b\0", 4));
}

TEST(Words, WithoutSeparatorsTheWholeTextIsTheWord) {
    EXPECT_EQ(read("a:b", ""), (outcome{word_end::text_end, "a:b", 3}));
}

//  Returns the expected result, computed in another way: splits the text at the separators, then examines each piece.
outcome model(const std::string& text, const std::string& separators, size_t from) {
    while (from < text.size()) {
        const size_t cut = std::min(text.find_first_of(separators, from), text.size());
        std::string piece = text.substr(from, cut - from);
        std::erase_if(piece, [](char c) { return c == '\r' || c == '\n'; });
        piece.erase(0, std::min(piece.find_first_not_of(" \t"), piece.size()));
        if (piece.size() > 15)
            return outcome{word_end::none, "", 0};
        while (!piece.empty() && (piece.back() == ' ' || piece.back() == '\t'))
            piece.pop_back();
        const bool ended = cut < text.size();
        from = ended ? cut + 1 : cut;
        if (!piece.empty())
            return outcome{ended ? word_end::separator : word_end::text_end, piece, from};
    }
    return outcome{word_end::none, "", from};
}

TEST(Words, AgreesWithTheModelOn200000Texts) {
    static const char alphabet[] = "ab \t\r\n:/=&lev";
    std::mt19937 random(20250411);
    for (int i = 0; i < 200000; ++i) {
        std::string text(random() % 40, ' ');
        const size_t letters = random() % (sizeof alphabet - 1) + 1;
        for (char& c : text)
            c = alphabet[random() % letters];
        const char* separators = i % 3 == 0 ? ":/" : i % 3 == 1 ? "=" : "&";
        const size_t from = i % 5 == 0 ? random() % (text.size() + 1) : 0;
        const outcome expected = model(text, separators, from);
        outcome actual = read(text, separators, from);
        ASSERT_LE(actual.position, text.size());
        if (expected.end == word_end::none)
            actual.position = expected.position;
        ASSERT_EQ(actual, expected) << testing::PrintToString(text) << " from " << from << " to " << separators;
    }
}

}  // namespace
