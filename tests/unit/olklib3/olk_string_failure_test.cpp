#include "mapping_spy.h"
#include "olk_string_watch.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

//  While an object exists, every request of a watched_string for memory fails.
struct no_memory {
    no_memory() { watched_alloctor::refusing = true; }
    ~no_memory() { watched_alloctor::refusing = false; }
    no_memory(const no_memory&) = delete;
    no_memory& operator=(const no_memory&) = delete;
};

class StringWithoutMemory : public testing::Test {
protected:
    StringWithoutMemory() {
        for (char c = '1'; c <= '7'; ++c)
            full.push_back(c);
        before_ = full.data();
    }

    //  Checks that the string is the same as before memory was exhausted.
    void expect_unchanged() {
        EXPECT_EQ(full.data(), before_);
        EXPECT_EQ(full.capacity(), 8u);
        EXPECT_EQ(text_of(full), "1234567");
    }

    watched_string fresh;
    watched_string full;  // 7 bytes in a block of 16: the next byte needs memory

private:
    const char* before_;
};

TEST_F(StringWithoutMemory, PushBackLeavesTheStringAsItWas) {
    const no_memory refused;
    full.push_back('8');
    expect_unchanged();
}

TEST_F(StringWithoutMemory, AppendLeavesTheStringAsItWas) {
    const no_memory refused;
    full.append("89", 2);
    full.append("89");
    expect_unchanged();
}

TEST_F(StringWithoutMemory, AppendOfItselfLeavesTheStringAsItWas) {
    const no_memory refused;
    full.append(full.data(), full.size());
    expect_unchanged();
}

TEST_F(StringWithoutMemory, ReserveLeavesTheStringAsItWas) {
    const no_memory refused;
    full.reserve(100);
    expect_unchanged();
}

TEST_F(StringWithoutMemory, ATextThatFitsTheBufferIsStillAppended) {
    const no_memory refused;
    full.clear();
    full.append("abcdefg");
    EXPECT_EQ(text_of(full), "abcdefg");
}

TEST_F(StringWithoutMemory, AStringWithoutABufferGetsNoBuffer) {
    const no_memory refused;
    fresh.push_back('a');
    fresh.append("abc");
    fresh.append("abc", 3);
    fresh.reserve(0);
    EXPECT_EQ(fresh.data(), nullptr);
    EXPECT_STREQ(fresh.c_str(), "");
}

TEST_F(StringWithoutMemory, ACopyIsEmpty) {
    const no_memory refused;
    const watched_string copy(full);
    EXPECT_EQ(copy.data(), nullptr);
    expect_unchanged();
}

TEST_F(StringWithoutMemory, AssignmentClearsAndAppendsNothing) {
    const watched_string longer("a text that needs another block");
    const no_memory refused;
    full = longer;
    EXPECT_EQ(full.size(), 0u);
    EXPECT_EQ(full.capacity(), 8u);
}

TEST_F(StringWithoutMemory, TheStringWorksWhenMemoryIsAvailableAgain) {
    {
        const no_memory refused;
        full.push_back('8');
    }
    full.push_back('9');
    EXPECT_EQ(text_of(full), "12345679");
}

TEST_F(StringWithoutMemory, ReadUntilSkipsBytesWithoutMemory) {
    size_t position = 0;
    {
        const no_memory refused;
        EXPECT_TRUE(olk::read_until(position, '/', "abc/d", 5, full));
    }
    EXPECT_EQ(position, 4u);
    expect_unchanged();
}

TEST_F(StringWithoutMemory, ALengthThatFitsNoBlockFails) {
    volatile size_t huge = SIZE_MAX;
    full.append(full.data(), huge);
    full.append(full.data(), huge - 6);  // the sum with the existing 7 bytes would overflow to 0
    full.append(full.data(), 4294967296);
    full.append(full.data(), 4294967289);  // the sum with the existing 7 bytes would overflow 32 bits to 0
    expect_unchanged();
}

TEST_F(StringWithoutMemory, ReservingAboveTheMaximumFails) {
    watched_alloctor::take();
    for (uint64_t n : {uint64_t{4294967264}, uint64_t{4294967295}, uint64_t{4294967296}, UINT64_MAX - 8, UINT64_MAX}) {
        full.reserve(n);
        fresh.reserve(n);
    }
    EXPECT_EQ(watched_alloctor::take(), std::vector<std::string>{});
    expect_unchanged();
    EXPECT_EQ(fresh.data(), nullptr);
}

TEST_F(StringWithoutMemory, AFailedMappingLeavesTheStringUnchanged) {
    olk::string pooled("abc");
    spy::watch watch;
    watch.fail_mmap(1);
    pooled.reserve(4294967263);
    watch.stop_failing();
    EXPECT_EQ(watch.lengths(spy::kind::mmap), std::vector<size_t>{4294967296}) << "the mapping was requested";
    EXPECT_EQ(text_of(pooled), "abc");
    EXPECT_EQ(pooled.capacity(), 8u);
}

TEST_F(StringWithoutMemory, GrowingAboveTheClassesFailsAndSucceedsLater) {
    olk::string pooled;
    const std::string text(4000000, 'x');
    pooled.append(text.data(), text.size());
    const char* before = pooled.data();
    spy::watch watch;
    watch.fail_mmap(1);
    pooled.append(text.data(), text.size());
    EXPECT_EQ(pooled.size(), text.size());
    EXPECT_EQ(pooled.data(), before);
    watch.stop_failing();
    pooled.append(text.data(), text.size());
    EXPECT_EQ(text_of(pooled), text + text);
}

}  // namespace
