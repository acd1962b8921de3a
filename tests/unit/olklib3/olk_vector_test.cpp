#include "olk_vector.h"

#include "mapping_spy.h"

#include <gtest/gtest.h>

#include <memory>
#include <type_traits>
#include <vector>

namespace {

struct counted {
    static inline int alive = 0;
    int value;

    explicit counted(int v) : value(v) { ++alive; }
    counted(const counted& other) : value(other.value) { ++alive; }
    counted(counted&& other) noexcept : value(other.value) { ++alive; }
    ~counted() { --alive; }
    counted& operator=(const counted&) = default;
};

TEST(Vector, StartsEmptyAndHoldsNoMemory) {
    spy::watch watch(spy::scope::memory_and_locks);
    {
        olk::vector_<int> list;
        EXPECT_EQ(list.size(), 0u);
        EXPECT_TRUE(list.empty());
        EXPECT_EQ(list.begin(), list.end());
    }
    EXPECT_EQ(watch.trace(), std::vector<std::string>{});
}

TEST(Vector, KeepsItsElementsInOrderWhileItGrows) {
    olk::vector_<int> list;
    for (int i = 0; i < 10000; ++i)
        ASSERT_TRUE(list.push_back(i));
    EXPECT_EQ(list.size(), 10000u);
    EXPECT_FALSE(list.empty());
    for (int i = 0; i < 10000; ++i)
        ASSERT_EQ(list[static_cast<size_t>(i)], i);
    int next = 0;
    for (int value : list)
        ASSERT_EQ(value, next++);
}

TEST(Vector, ElementsCanBeChangedInPlace) {
    olk::vector_<int> list;
    list.push_back(1);
    list[0] = 7;
    const olk::vector_<int>& constant = list;
    EXPECT_EQ(constant[0], 7);
}

TEST(Vector, AllocatesFromThePooledAllocatorAndFrees) {
    olk::allocator& allocator = *olk::get_olk_allocator();
    const auto* smallest = allocator.classes[0];
    const uint32_t before = smallest->freecount;
    {
        olk::vector_<uint64_t> list;
        list.push_back(1);
        EXPECT_EQ(smallest->freecount, before - 1);
        list.push_back(2);
        EXPECT_EQ(smallest->freecount, before - 1) << "16 usable bytes hold two elements";
        list.push_back(3);
        EXPECT_EQ(smallest->freecount, before) << "the old block was freed";
    }
    EXPECT_EQ(smallest->freecount, before);
}

TEST(Vector, AThousandElementsNeedAtMostTenGrowths) {
    struct three_words {
        uint64_t words[3];
    };
    olk::vector_<three_words> list;
    int moves = 0;
    const three_words* at = nullptr;
    for (int i = 0; i < 1000; ++i) {
        list.push_back(three_words{});
        moves += static_cast<int>(list.begin() != at);
        at = list.begin();
    }
    EXPECT_LE(moves, 10);
}

TEST(Vector, RequestsTwiceTheElementsPlusOneAndUsesTheWholeBlock) {
    struct sixteen_bytes {
        uint64_t words[2];
    };
    olk::vector_<sixteen_bytes> list;
    const sixteen_bytes* place = nullptr;
    std::vector<size_t> grown_at;
    for (size_t size = 0; size < 50; ++size) {
        ASSERT_TRUE(list.push_back(sixteen_bytes{}));
        if (list.begin() != place)
            grown_at.push_back(size);
        place = list.begin();
    }
    EXPECT_EQ(grown_at, (std::vector<size_t>{0, 1, 4, 16, 40})) << "blocks of 16, 64, 256, 640 and 1424 bytes";
}

TEST(Vector, DestroysAsManyElementsAsItConstructs) {
    counted::alive = 0;
    {
        olk::vector_<counted> list;
        for (int i = 0; i < 100; ++i)
            list.push_back(counted(i));
        EXPECT_EQ(counted::alive, 100);
    }
    EXPECT_EQ(counted::alive, 0);
}

TEST(Vector, HoldsTypesThatCanOnlyBeMoved) {
    olk::vector_<std::unique_ptr<int>> list;
    for (int i = 0; i < 10; ++i)
        list.push_back(std::make_unique<int>(i));
    EXPECT_EQ(*list[9], 9);
    EXPECT_EQ(*list[0], 0);
}

TEST(Vector, ClearRemovesTheElementsAndKeepsTheMemory) {
    counted::alive = 0;
    olk::vector_<counted> list;
    for (int i = 0; i < 50; ++i)
        list.push_back(counted(i));
    const counted* at = list.begin();
    list.clear();
    EXPECT_EQ(counted::alive, 0);
    EXPECT_TRUE(list.empty());
    list.push_back(counted(7));
    EXPECT_EQ(list.begin(), at);
    EXPECT_EQ(list[0].value, 7);
}

TEST(Vector, WithoutMemoryTheElementIsLeftOutAndTheRestStays) {
    olk::vector_<uint64_t> list;
    //  Growing beyond 4 MiB requires a separate mapping.
    uint64_t next = 0;
    while (list.size() < 4194304 / sizeof(uint64_t) / 2)
        ASSERT_TRUE(list.push_back(next++));
    spy::watch watch;
    watch.fail_mmap(1);
    while (list.push_back(next))
        ++next;
    EXPECT_EQ(list.size(), next);
    EXPECT_FALSE(list.push_back(next));
    EXPECT_EQ(list.size(), next);
    EXPECT_EQ(list[next - 1], next - 1);
    EXPECT_EQ(list[0], 0u);
    watch.stop_failing();
    EXPECT_TRUE(list.push_back(next));
    EXPECT_EQ(list[next], next);
    EXPECT_EQ(list[next - 1], next - 1);
}

TEST(Vector, CannotBeCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<olk::vector_<int>>);
    EXPECT_FALSE(std::is_copy_assignable_v<olk::vector_<int>>);
}

}  // namespace
