#include "olk_string.h"

#include "olk_string_watch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <type_traits>
#include <utility>

namespace {

using calls = std::vector<std::string>;

class String : public testing::Test {
protected:
    String() { watched_alloctor::take(); }
    watched_string s;
};

TEST_F(String, IsTheStringTemplateWithThePooledAllocatorAnd32BitCounts) {
    EXPECT_TRUE((std::is_same_v<olk::string, olk::string_<olk::olk_string_alloctor, unsigned int, char, void>>));
}

TEST_F(String, IsOnePointerWide) {
    EXPECT_EQ(sizeof(olk::string), sizeof(void*));
}

TEST_F(String, WithoutABufferIsTheNullPointer) {
    EXPECT_EQ(olk::load_word<void*>(&s), nullptr);
    EXPECT_EQ(s.data(), nullptr);
    EXPECT_EQ(s.size(), 0u);
    EXPECT_EQ(s.capacity(), 0u);
    EXPECT_TRUE(s.empty());
}

TEST_F(String, WithTextIsNotEmpty) {
    s.append("a");
    EXPECT_FALSE(s.empty());
}

TEST_F(String, PointsAtItsFirstCharacter) {
    s.append("abc");
    EXPECT_EQ(olk::load_word<char*>(&s), s.data());
    EXPECT_EQ(std::memcmp(s.data(), "abc", 3), 0);
}

TEST_F(String, TheBlockStartsWithCapacityThenSize) {
    s.append("abc");
    EXPECT_EQ(olk::load_word<uint32_t>(s.data() - 8), 8u);
    EXPECT_EQ(olk::load_word<uint32_t>(s.data() - 4), 3u);
}

TEST_F(String, TheBlockStartsEightBytesBeforeTheCharacters) {
    olk::string pooled;
    pooled.push_back('x');
    EXPECT_EQ(olk::allocator::usable_size(pooled.data() - 8), 16u);
}

TEST_F(String, TakesItsBlockFromTheProcessWideAllocatorAndFreesIt) {
    const auto* smallest = olk::get_olk_allocator()->classes[0];
    const uint32_t before = smallest->freecount;
    {
        olk::string pooled;
        pooled.push_back('x');
        EXPECT_EQ(smallest->freecount, before - 1);
    }
    EXPECT_EQ(smallest->freecount, before);
}

TEST_F(String, TheAllocatorTypeHasNoState) {
    EXPECT_TRUE(std::is_empty_v<olk::olk_string_alloctor>);
}

TEST_F(String, TheAllocatorTypeReportsTheUsableSize) {
    size_t usable = 0;
    void* p = olk::olk_string_alloctor::malloc_(17, &usable);
    EXPECT_EQ(usable, 32u);
    EXPECT_EQ(olk::olk_string_alloctor::usable_size(p), 32u);
    olk::olk_string_alloctor::free_(p);
}

TEST_F(String, PushBackAppendsOneByte) {
    s.push_back('a');
    s.push_back('b');
    EXPECT_EQ(text_of(s), "ab");
}

TEST_F(String, AppendAppendsTheGivenNumberOfBytes) {
    s.append("abcdef", 4);
    s.append("xyz", 1);
    EXPECT_EQ(text_of(s), "abcdx");
}

TEST_F(String, AppendOfAZeroTerminatedTextOmitsTheTerminator) {
    s.append("abc");
    s.append("de");
    EXPECT_EQ(text_of(s), "abcde");
}

TEST_F(String, ZeroBytesMayOccurInside) {
    s.append("a\0b", 3);
    s.push_back('\0');
    EXPECT_EQ(text_of(s), std::string("a\0b\0", 4));
}

TEST_F(String, BytesOf128AndAboveAreKept) {
    for (int byte = 0; byte < 256; ++byte)
        s.push_back(static_cast<char>(byte));
    ASSERT_EQ(s.size(), 256u);
    for (int byte = 0; byte < 256; ++byte)
        ASSERT_EQ(static_cast<unsigned char>(s.data()[byte]), byte);
}

TEST_F(String, AnEmptyTextAppendedToAStringWithoutABufferLeavesItWithoutOne) {
    s.append("");
    EXPECT_EQ(s.data(), nullptr);
    EXPECT_EQ(watched_alloctor::take(), calls{});
}

TEST_F(String, AZeroLengthRunAppendedToAStringWithoutABufferLeavesItWithoutOne) {
    s.append("abc", 0);
    EXPECT_EQ(s.data(), nullptr);
    EXPECT_EQ(watched_alloctor::take(), calls{});
}

TEST_F(String, AZeroLengthRunAppendedToAClearedBufferReleasesIt) {
    s.append("abc");
    s.clear();
    watched_alloctor::take();
    s.append("abc", 0);
    EXPECT_EQ(s.data(), nullptr);
    EXPECT_EQ(s.size(), 0u);
    EXPECT_EQ(watched_alloctor::take(), calls{"free 16"});
}

TEST_F(String, AZeroLengthRunAppendedToAReservedBufferReleasesIt) {
    s.reserve(100);
    s.append("abc", 0);
    EXPECT_EQ(s.data(), nullptr);
}

TEST_F(String, AnEmptyTextAppendedToAClearedBufferKeepsIt) {
    s.append("abc");
    s.clear();
    const char* before = s.data();
    s.append("");
    EXPECT_EQ(s.data(), before);
}

TEST_F(String, AZeroLengthRunAppendedToATextChangesNothing) {
    s.append("abc");
    const char* before = s.data();
    s.append("xyz", 0);
    EXPECT_EQ(s.data(), before);
    EXPECT_EQ(text_of(s), "abc");
}

TEST_F(String, ClearKeepsTheBuffer) {
    s.append("abcdefghij");
    const char* before = s.data();
    const uint32_t capacity = s.capacity();
    watched_alloctor::take();
    s.clear();
    EXPECT_EQ(s.size(), 0u);
    EXPECT_TRUE(s.empty());
    EXPECT_EQ(s.data(), before);
    EXPECT_EQ(s.capacity(), capacity);
    EXPECT_EQ(watched_alloctor::take(), calls{});
}

TEST_F(String, ClearOfAStringWithoutABufferDoesNothing) {
    s.clear();
    EXPECT_EQ(s.data(), nullptr);
}

TEST_F(String, ReleaseFreesTheBlockAndLeavesNull) {
    s.append("abc");
    watched_alloctor::take();
    s.release();
    EXPECT_EQ(s.data(), nullptr);
    EXPECT_EQ(s.size(), 0u);
    EXPECT_EQ(watched_alloctor::take(), calls{"free 16"});
}

TEST_F(String, ReleaseOfAStringWithoutABufferDoesNothing) {
    s.release();
    EXPECT_EQ(watched_alloctor::take(), calls{});
}

TEST_F(String, DestructionFreesTheBlock) {
    {
        watched_string inner;
        inner.append("abc");
        watched_alloctor::take();
    }
    EXPECT_EQ(watched_alloctor::take(), calls{"free 16"});
}

TEST_F(String, CStrOfANeverUsedStringIsEmptyAndAllocatesNothing) {
    EXPECT_STREQ(s.c_str(), "");
    EXPECT_EQ(s.data(), nullptr);
    EXPECT_EQ(watched_alloctor::take(), calls{});
}

TEST_F(String, CStrOfEveryStringWithoutABufferIsTheSameStaticText) {
    const watched_string other;
    EXPECT_EQ(s.c_str(), other.c_str());
}

TEST_F(String, CStrReturnsTheCharactersTerminated) {
    s.reserve(20);
    std::memset(s.data(), 'x', s.capacity());
    s.append("abc");
    EXPECT_EQ(s.c_str(), s.data());
    EXPECT_STREQ(s.c_str(), "abc");
}

TEST_F(String, TheTextIsNotTerminatedUntilCStr) {
    s.reserve(20);
    std::memset(s.data(), 'x', s.capacity());
    s.append("abc");
    s.push_back('d');
    EXPECT_EQ(s.data()[4], 'x');
}

TEST_F(String, CStrOfAFullBufferWritesItsLastByte) {
    for (char c = '1'; c <= '7'; ++c)
        s.push_back(c);
    ASSERT_EQ(s.capacity(), 8u);
    s.data()[7] = 'x';
    EXPECT_STREQ(s.c_str(), "1234567");
    EXPECT_EQ(s.data()[7], '\0');
}

TEST_F(String, CStrDoesNotWriteATerminatorThatIsAlreadyThere) {
    mapped_string read_only;
    read_only.append("abc");
    read_only.c_str();
    mapped_alloctor::protect(read_only.data(), true);
    EXPECT_STREQ(read_only.c_str(), "abc");
    mapped_alloctor::protect(read_only.data(), false);
}

TEST_F(String, ConstructsFromAText) {
    EXPECT_EQ(text_of(watched_string("abc")), "abc");
    EXPECT_EQ(text_of(watched_string("abcdef", 2)), "ab");
}

TEST_F(String, AssignReplacesTheText) {
    s.append("a long text that was there before");
    s.assign("abc");
    EXPECT_EQ(text_of(s), "abc");
    s.assign("defgh", 2);
    EXPECT_EQ(text_of(s), "de");
    s.assign(watched_string("xyz"));
    EXPECT_EQ(text_of(s), "xyz");
}

TEST_F(String, AssignKeepsTheBuffer) {
    s.append("a text of some length");
    const char* before = s.data();
    s.assign("short");
    EXPECT_EQ(s.data(), before);
}

TEST_F(String, AssignOfAZeroLengthRunReleasesTheBuffer) {
    s.append("abc");
    s.assign("xyz", 0);
    EXPECT_EQ(s.data(), nullptr);
}

TEST_F(String, ACopyHasItsOwnBuffer) {
    s.append("abc");
    watched_string copy(s);
    EXPECT_NE(copy.data(), s.data());
    copy.push_back('d');
    EXPECT_EQ(text_of(copy), "abcd");
    EXPECT_EQ(text_of(s), "abc");
}

TEST_F(String, ACopyOfAStringWithoutABufferHasNoBuffer) {
    const watched_string copy(s);
    EXPECT_EQ(copy.data(), nullptr);
}

TEST_F(String, CopyAssignmentUsesItsOwnBuffer) {
    s.append("abc");
    watched_string other("something else");
    other = s;
    EXPECT_EQ(text_of(other), "abc");
    EXPECT_NE(other.data(), s.data());
    EXPECT_EQ(text_of(s), "abc");
}

TEST_F(String, CopyAssignmentFromAnEmptyStringEmptiesTheText) {
    s.append("abc");
    s = watched_string();
    EXPECT_TRUE(s.empty());
}

TEST_F(String, CopyAssignmentToItselfKeepsTheText) {
    s.append("abc");
    const watched_string& same = s;
    s = same;
    EXPECT_EQ(text_of(s), "abc");
}

TEST_F(String, AssignOfItselfKeepsTheText) {
    s.append("abc");
    s.assign(s);
    EXPECT_EQ(text_of(s), "abc");
}

TEST_F(String, AMoveTakesTheBuffer) {
    s.append("abc");
    const char* before = s.data();
    watched_alloctor::take();
    watched_string moved(std::move(s));
    EXPECT_EQ(moved.data(), before);
    EXPECT_EQ(s.data(), nullptr);
    EXPECT_EQ(watched_alloctor::take(), calls{});
    s.append("usable again");
    EXPECT_EQ(text_of(s), "usable again");
    EXPECT_EQ(text_of(moved), "abc");
}

TEST_F(String, MoveAssignmentTakesTheTextAndAllocatesNothing) {
    s.append("abc");
    watched_string other("something else");
    watched_alloctor::take();
    other = std::move(s);
    EXPECT_EQ(text_of(other), "abc");
    EXPECT_EQ(watched_alloctor::take(), calls{});
    s.assign("usable again");
    EXPECT_EQ(text_of(s), "usable again");
}

TEST_F(String, MoveAssignmentToItselfKeepsTheText) {
    s.append("abc");
    watched_string& same = s;
    s = std::move(same);
    EXPECT_EQ(text_of(s), "abc");
}

TEST_F(String, AsManyBlocksAreFreedAsAllocated) {
    {
        watched_string a("abc");
        watched_string b(a);
        watched_string c(std::move(a));
        a = b;
        b = std::move(c);
        c.release();
        for (int i = 0; i < 1000; ++i)
            a.push_back('x');
    }
    int live = 0;
    for (const std::string& call : watched_alloctor::take())
        live += call[0] == 'm' ? 1 : -1;
    EXPECT_EQ(live, 0);
}

TEST_F(String, AppendsItsOwnTextWhenTheBufferMoves) {
    const std::string text = "abcdefghijklmnopqrstuvw";
    for (char c : text)
        s.push_back(c);
    const char* before = s.data();
    s.append(s.data(), s.size());
    EXPECT_NE(s.data(), before);
    EXPECT_EQ(text_of(s), text + text);
}

TEST_F(String, AppendsAPieceOfItselfInPlace) {
    s.append("abcdef");
    s.reserve(100);
    s.append(s.data() + 2, 3);
    EXPECT_EQ(text_of(s), "abcdefcde");
}

TEST_F(String, AppendsItsOwnTerminatedText) {
    const std::string text = "abcdefghijklmnopqrstuvw";
    for (char c : text)
        s.push_back(c);
    s.append(s.c_str());
    EXPECT_EQ(text_of(s), text + text);
}

}  // namespace
