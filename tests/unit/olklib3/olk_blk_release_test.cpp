//  Release of the heaps of a size class: when a heap is released, when it is kept, and destruction of the class.
#include "size_class_fixture.h"

#include <algorithm>

namespace {

using BlkReleaseThreeHeaps = FullHeaps<3>;
using BlkRelease = FullHeaps<4>;
using BlkReleaseSixHeaps = FullHeaps<6>;

TEST_F(BlkReleaseThreeHeaps, FreeingEveryBlockUnmapsNothing) {
    spy::watch watch;
    for (int i : {1, 2, 0})
        give_back(at[i]);
    EXPECT_EQ(watch.count(spy::kind::munmap), 0u);
    EXPECT_EQ(cls.heapcount, 3);
    EXPECT_EQ(cls.freecount, 3 * per_heap);
}

TEST_F(BlkRelease, AHeapWithTheOnlyFreeBlocksIsKept) {
    spy::watch watch;
    give_back(at[1]);
    EXPECT_EQ(watch.count(spy::kind::munmap), 0u);
    EXPECT_EQ(cls.heapcount, 4);
    EXPECT_EQ(cls.freecount, per_heap);
}

TEST_F(BlkRelease, OneMoreFreeBlockAllowsTheRelease) {
    free_in(cls, at[0][0]);
    spy::watch watch;
    watch.name(heap[1]->base, "heap 1");
    give_back(at[1]);
    EXPECT_EQ(watch.trace(), trace{"munmap heap 1"});
    EXPECT_EQ(watch.lengths(spy::kind::munmap), std::vector<size_t>{page});
    EXPECT_EQ(heaps(), (std::vector{heap[0], heap[3], heap[2]}));
    EXPECT_EQ(cls.heapcount, 3);
    EXPECT_EQ(cls.freecount, 1u);
    EXPECT_TRUE(cls.valid());
}

TEST_F(BlkRelease, TheFreeCountIsComparedAfterTheBlockIsFreed) {
    free_in(cls, at[0][0]);
    give_back({at[1][0], at[1][1], at[1][2]});
    EXPECT_EQ(cls.freecount, per_heap);
    spy::watch watch;
    free_in(cls, at[1][3]);
    EXPECT_EQ(watch.count(spy::kind::munmap), 1u);
}

TEST_F(BlkRelease, EveryEntirelyFreeHeapAfterTheHeadIsReleased) {
    give_back(at[1]);
    spy::watch watch;
    watch.name(heap[1]->base, "heap 1");
    watch.name(heap[3]->base, "heap 3");
    give_back(at[3]);
    EXPECT_EQ(watch.trace(), (trace{"munmap heap 3", "munmap heap 1"})) << "in the order of the list";
    EXPECT_EQ(heaps(), (std::vector{heap[0], heap[2]}));
    EXPECT_EQ(cls.heapcount, 2);
    EXPECT_EQ(cls.freecount, 0u);
}

TEST_F(BlkRelease, TheHeadHeapStaysWhenItsLastBlockIsFreed) {
    free_in(cls, at[1][0]);
    spy::watch watch;
    give_back(at[0]);
    EXPECT_TRUE(heap[0]->wholly_free());
    EXPECT_EQ(watch.count(spy::kind::munmap), 0u);
    EXPECT_EQ(cls.heapcount, 4);
}

TEST_F(BlkRelease, FreeingTheHeadsLastBlockReleasesNoHeap) {
    give_back(at[1]);
    spy::watch watch;
    give_back(at[0]);
    EXPECT_EQ(cls.freecount, 2 * per_heap);
    EXPECT_EQ(watch.count(spy::kind::munmap), 0u);
}

TEST_F(BlkRelease, ABlockOfAHeapThatIsNotEntirelyFreeReleasesNothing) {
    give_back(at[1]);
    spy::watch watch;
    give_back({at[2][0], at[2][1], at[2][2]});
    EXPECT_EQ(watch.count(spy::kind::munmap), 0u);
    free_in(cls, at[2][3]);
    EXPECT_EQ(watch.count(spy::kind::munmap), 2u);
}

TEST_F(BlkRelease, AnEntirelyFreeHeadIsKeptWhenTheOthersAreReleased) {
    give_back(at[0]);
    give_back(at[1]);
    EXPECT_EQ(heaps(), (std::vector{heap[0], heap[3], heap[2]}));
    EXPECT_EQ(cls.freecount, per_heap);
}

TEST_F(BlkReleaseSixHeaps, AdjacentFreeHeapsAreAllReleased) {
    give_back({at[1][0], at[1][1], at[1][2], at[2][0], at[2][1], at[2][2]});
    give_back({at[3][0], at[3][1], at[3][2]});
    spy::watch watch;
    free_in(cls, at[2][3]);
    EXPECT_EQ(watch.count(spy::kind::munmap), 1u);
    free_in(cls, at[1][3]);
    free_in(cls, at[3][3]);
    EXPECT_EQ(heaps(), (std::vector{heap[0], heap[5], heap[4], heap[3]}))
        << "heap 3 is kept because it has the only free blocks";
    give_back(at[4]);
    EXPECT_EQ(heaps(), (std::vector{heap[0], heap[5]}));
    EXPECT_TRUE(cls.valid());
}

TEST_F(BlkRelease, TheReleaseHoldsTheClassLockAndTakesTheObjectHeapsInside) {
    free_in(cls, at[0][0]);
    give_back({at[1][0], at[1][1], at[1][2]});
    spy::watch watch(spy::scope::memory_and_locks);
    watch.name(&cls.lock, "class");
    watch.name(&olk::get_olk_alloctor_self()->objheap.lock, "object heap");
    watch.name(heap[1]->base, "heap 1");
    free_in(cls, at[1][3]);
    EXPECT_EQ(watch.trace(),
              (trace{"lock class", "munmap heap 1", "lock object heap", "unlock object heap", "unlock class"}));
}

//  Returns whether all bytes of a free slot after its first word are zero. The first word is the link in the object
//  heap's list of free slots.
bool zeroed_behind_the_link(const void* slot, size_t bytes) {
    const char* first = static_cast<const char*>(slot);
    return std::all_of(first + sizeof(void*), first + bytes, [](char c) { return c == 0; });
}

TEST_F(BlkRelease, TheRecordIsZeroedAndIsFreedToTheObjectHeap) {
    const uint64_t records = free_records();
    free_in(cls, at[0][0]);
    give_back(at[1]);
    EXPECT_EQ(free_records(), records + 1);
    EXPECT_TRUE(zeroed_behind_the_link(heap[1], sizeof(olk::blk_heap)));
}

TEST_F(BlkRelease, AFailedUnmapStillRemovesTheHeapFromTheClass) {
    free_in(cls, at[0][0]);
    char* const base = heap[1]->base;
    spy::watch watch;
    watch.fail_munmap(1, 1);
    give_back(at[1]);
    EXPECT_EQ(cls.heapcount, 3);
    EXPECT_EQ(cls.freecount, 1u);
    EXPECT_TRUE(cls.valid());
    olk::unmap_pages(base, page);
}

TEST_F(BlkRelease, AReleaseDeductsTheClassesBlocksPerHeap) {
#ifdef OLK_CHECK
    GTEST_SKIP() << "a checking build stops at a class whose counts are inconsistent";
#else
    free_in(cls, at[0][0]);
    give_back({at[1][0], at[1][1], at[1][2]});
    cls.blkperheap = 3;
    free_in(cls, at[1][3]);
    EXPECT_EQ(cls.heapcount, 3);
    EXPECT_EQ(cls.freecount, 5u - 3u) << "the four blocks of the heap itself are not deducted";
#endif
}

TEST_F(BlkRelease, WhetherAHeapIsKeptDependsOnTheClassesBlocksPerHeap) {
#ifdef OLK_CHECK
    GTEST_SKIP() << "a checking build stops at a class whose counts are inconsistent";
#else
    free_in(cls, at[0][0]);
    give_back({at[1][0], at[1][1], at[1][2]});
    cls.blkperheap = 5;
    spy::watch watch;
    free_in(cls, at[1][3]);
    EXPECT_EQ(watch.count(spy::kind::munmap), 0u);
#endif
}

TEST(BlkReleaseSmallFirstHeap, TheFreeCountIncludesTheBlocksOfASmallHead) {
    //  The head has 64 blocks, each other heap 65.
    size_class cls(512, 65);
    std::vector<void*> blocks;
    for (int i = 0; i < 64 + 3 * 65; ++i)
        blocks.push_back(cls.malloc_(nullptr));
    ASSERT_EQ(heaps_of(cls).size(), 4u);
    ASSERT_EQ(cls.heaps->blkcount, 64u);
    spy::watch watch;
    for (int i = 64; i < 64 + 65; ++i)
        free_in(cls, blocks[static_cast<size_t>(i)]);
    EXPECT_EQ(watch.count(spy::kind::munmap), 0u);
    free_in(cls, blocks[0]);
    EXPECT_EQ(watch.count(spy::kind::munmap), 0u) << "the head's blocks start no release";
    for (int i = 64 + 65; i < 64 + 2 * 65; ++i)
        free_in(cls, blocks[static_cast<size_t>(i)]);
    EXPECT_EQ(watch.count(spy::kind::munmap), 2u);
    EXPECT_EQ(cls.freecount, 1u);
    EXPECT_TRUE(cls.valid());
}

TEST_F(BlkRelease, FreeingAndTakingTheOnlyUsedBlockOfAHeapMapsNothing) {
    spy::watch watch;
    void* p = cls.malloc_(nullptr);
    EXPECT_EQ(watch.count(spy::kind::mmap), 1u);
    for (int i = 0; i < 100; ++i) {
        free_in(cls, p);
        p = cls.malloc_(nullptr);
    }
    EXPECT_EQ(watch.count(spy::kind::mmap), 1u);
    EXPECT_EQ(watch.count(spy::kind::munmap), 0u);
}

TEST(BlkDestruction, UnmapsEveryHeapInListOrderFreesTheRecordsAndDestroysTheLock) {
    const uint64_t records = free_records();
    auto* cls = new size_class(16, 4);
    for (int i = 0; i < 9; ++i)
        cls->malloc_(nullptr);
    EXPECT_EQ(free_records(), records - 4);
    spy::watch watch(spy::scope::memory_and_locks);
    watch.name(&olk::get_olk_alloctor_self()->objheap.lock, "object heap");
    watch.name(&cls->lock, "class");
    watch.name(cls->heaps->base, "head");
    watch.name(cls->heaps->next->base, "third");
    watch.name(cls->heaps->next->next->base, "second");
    delete cls;
    const std::string record_back[] = {"lock object heap", "unlock object heap"};
    EXPECT_EQ(watch.trace(), (trace{"munmap head", record_back[0], record_back[1], "munmap third", record_back[0],
                                    record_back[1], "munmap second", record_back[0], record_back[1], "destroy class",
                                    record_back[0], record_back[1]}));
    EXPECT_EQ(free_records(), records);
}

TEST(BlkDestruction, AHeapRecordIsZeroed) {
    auto* cls = new size_class(16, 4);
    cls->malloc_(nullptr);
    const olk::blk_heap* heap = cls->heaps;
    delete cls;
    EXPECT_TRUE(zeroed_behind_the_link(heap, sizeof(olk::blk_heap)));
}

TEST(BlkDestruction, TheClassRecordIsZeroedUpToItsLock) {
    auto* cls = new size_class(16, 4);
    cls->malloc_(nullptr);
    const void* volatile record = cls;  // volatile lets the test read the memory of the destroyed object
    delete cls;
    EXPECT_TRUE(zeroed_behind_the_link(record, offsetof(size_class, lock)));
}

}  // namespace
