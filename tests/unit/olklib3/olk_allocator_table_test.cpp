//  The table of 30 size classes. Each row is compared with the mappings that the class makes.
#include "mapping_spy.h"
#include "size_classes.h"

#include <gtest/gtest.h>

namespace {

class AllocatorTable : public testing::TestWithParam<int> {
protected:
    const size_row row = read_size_classes().at(static_cast<size_t>(GetParam()));
    olk::allocator allocator;
    olk::blk_alloctor<olk::spinlock>& cls = *allocator.classes[GetParam()];
};

TEST_P(AllocatorTable, HasTheBlockSizeAndTheBlocksPerHeap) {
    EXPECT_EQ(cls.blksize, row.blksize);
    EXPECT_EQ(cls.blkperheap, row.blkperheap);
}

TEST_P(AllocatorTable, StartsWithItsFirstHeapOrWithoutAHeap) {
    EXPECT_EQ(cls.heapcount, row.at_start ? 1 : 0);
    EXPECT_EQ(cls.heaps != nullptr, row.at_start);
    EXPECT_EQ(cls.freecount, row.at_start ? row.first_blocks : 0);
    if (row.at_start) {
        EXPECT_EQ(cls.heaps->maplen, row.first_bytes);
        EXPECT_EQ(cls.heaps->blkcount, row.first_blocks);
        EXPECT_EQ(cls.heaps->freecount, row.first_blocks);
        EXPECT_EQ(cls.heaps->bump, 0u);
    }
}

TEST_P(AllocatorTable, GetsItsFirstHeap) {
    spy::watch watch;
    EXPECT_NE(allocator.malloc_(row.blksize, nullptr), nullptr);
    EXPECT_EQ(watch.lengths(spy::kind::mmap),
              row.at_start ? std::vector<size_t>{} : std::vector<size_t>{row.first_bytes});
    EXPECT_EQ(cls.heaps->maplen, row.first_bytes);
    EXPECT_EQ(cls.heaps->blkcount, row.first_blocks);
    EXPECT_EQ(cls.freecount, row.first_blocks - 1);
}

TEST_P(AllocatorTable, GetsAFullHeapWhenTheFirstIsUsedUp) {
    for (uint32_t i = 0; i < row.first_blocks; ++i)
        allocator.malloc_(row.blksize, nullptr);
    ASSERT_EQ(cls.freecount, 0u);
    spy::watch watch;
    EXPECT_NE(allocator.malloc_(row.blksize, nullptr), nullptr);
    EXPECT_EQ(watch.lengths(spy::kind::mmap), std::vector<size_t>{row.heap_bytes});
    ASSERT_NE(cls.heaps->next, nullptr);
    EXPECT_EQ(cls.heaps->next->blkcount, row.blkperheap);
    EXPECT_EQ(cls.freecount, row.blkperheap - 1);
}

INSTANTIATE_TEST_SUITE_P(Class, AllocatorTable, testing::Range(0, 30), [](const auto& index) {
    return "Of" + std::to_string(read_size_classes().at(static_cast<size_t>(index.param)).blksize) + "Bytes";
});

TEST(AllocatorTableFile, HasThirtyRowsLikeTheAllocator) {
    EXPECT_EQ(read_size_classes().size(), 30u);
    EXPECT_EQ(olk::allocator().classcount, 30);
}

TEST(AllocatorTableFile, TheLargestClassIs4MiBSo8388608IsABigBlock) {
    olk::allocator allocator;
    EXPECT_EQ(allocator.classes[29]->blksize, 4194304u);
    EXPECT_EQ(allocator.classes[30], nullptr);
    allocator.free_(allocator.malloc_(1, nullptr));
    void* p = allocator.malloc_(8388608, nullptr);
    EXPECT_EQ(allocator.bigcount, 1u);
    allocator.free_(p);
}

}  // namespace
