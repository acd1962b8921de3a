#include "olk_blk_alloctor.h"

#include "size_class_fixture.h"

#include <clocale>
#include <csignal>
#include <cstddef>
#include <cstring>

#include <errno.h>

namespace {

using BlkAlloctor = FourBlockClass;

TEST(BlkAlloctorLayout, TheClassesFieldsAreInOrder) {
    EXPECT_EQ(offsetof(size_class, heaps), 0u);
    EXPECT_EQ(offsetof(size_class, heapcount), 8u);
    EXPECT_EQ(offsetof(size_class, freecount), 12u);
    EXPECT_EQ(offsetof(size_class, blksize), 16u);
    EXPECT_EQ(offsetof(size_class, blkperheap), 20u);
    EXPECT_EQ(offsetof(size_class, lock), 24u);
    EXPECT_TRUE((std::is_same_v<decltype(size_class::heapcount), int32_t>));
}

TEST(BlkAlloctorLayout, TheHeapRecordIs56BytesWithItsFieldsInOrder) {
    EXPECT_EQ(offsetof(olk::blk_heap, freecount), 0u);
    EXPECT_EQ(offsetof(olk::blk_heap, blkcount), 4u);
    EXPECT_EQ(offsetof(olk::blk_heap, blksize), 8u);
    EXPECT_EQ(offsetof(olk::blk_heap, bump), 12u);
    EXPECT_EQ(offsetof(olk::blk_heap, maplen), 16u);
    EXPECT_EQ(offsetof(olk::blk_heap, base), 24u);
    EXPECT_EQ(offsetof(olk::blk_heap, freelist), 32u);
    EXPECT_EQ(offsetof(olk::blk_heap, owner), 40u);
    EXPECT_EQ(offsetof(olk::blk_heap, next), 48u);
    EXPECT_EQ(sizeof(olk::blk_heap), 56u);
}

TEST(BlkAlloctorLayout, AClassIsAnObjectOfTheObjectHeap) {
    const uint64_t before = free_records();
    auto* made = new size_class(16, 4);
    EXPECT_EQ(free_records(), before - 1);
    delete made;
    EXPECT_EQ(free_records(), before);
}

TEST(BlkAlloctorLayout, AHeapRecordLiesInTheObjectHeapNotInItsOwnMapping) {
    size_class cls(16, 4);
    const uint64_t before = free_records();
    cls.malloc_(nullptr);
    EXPECT_EQ(free_records(), before - 1);
    const char* record = reinterpret_cast<const char*>(cls.heaps);
    EXPECT_TRUE(record < cls.heaps->base || record >= cls.heaps->base + cls.heaps->maplen);
}

TEST(BlkAlloctorFirstHeap, IsReducedOnlyAbove32768Bytes) {
    EXPECT_EQ(size_class::first_heap_count(1, 32768), 32768u);
    EXPECT_EQ(size_class::first_heap_count(1, 32769), 32768u);
}

TEST_F(BlkAlloctor, AClassStartsWithoutAHeap) {
    EXPECT_EQ(cls.heaps, nullptr);
    EXPECT_EQ(cls.heapcount, 0);
    EXPECT_EQ(cls.freecount, 0u);
    EXPECT_EQ(cls.blksize, 16u);
    EXPECT_EQ(cls.blkperheap, 4u);
}

TEST(BlkAlloctorStart, TheBlockSizeIsRoundedUpTo8) {
    EXPECT_EQ(size_class(1, 4).blksize, 8u);
    EXPECT_EQ(size_class(8, 4).blksize, 8u);
    EXPECT_EQ(size_class(9, 4).blksize, 16u);
}

TEST_F(BlkAlloctor, BlocksFollowEachOtherWithTheirHeapsAddressInFront) {
    const auto blocks = take(per_heap);
    const olk::blk_heap* heap = cls.heaps;
    for (size_t i = 0; i < per_heap; ++i) {
        EXPECT_EQ(blocks[i], heap->base + i * (16 + 8) + 8);
        EXPECT_EQ(olk::load_word<const olk::blk_heap*>(static_cast<char*>(blocks[i]) - 8), heap);
        EXPECT_EQ(olk::blk_heap::of(blocks[i]), heap);
    }
    EXPECT_EQ(heap->owner, &cls);
}

TEST_F(BlkAlloctor, UserAddressesAreAlignedTo8Only) {
    const auto blocks = take(2);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(blocks[0]) % 16, 8u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(blocks[1]) % 16, 0u);
}

TEST_F(BlkAlloctor, TheHeaderIsWrittenWhenTheBlockIsFirstCarvedAndNotBefore) {
    take(1);
    EXPECT_EQ(olk::load_word<void*>(cls.heaps->base + 24), nullptr);
    take(1);
    EXPECT_EQ(olk::load_word<void*>(cls.heaps->base + 24), cls.heaps);
}

TEST_F(BlkAlloctor, TheHeaderIsNotWrittenAgainWhenABlockIsReused) {
    const auto blocks = take(1);
    olk::blk_heap* const heap = cls.heaps;
    free_in(cls, blocks[0]);
    char* header = static_cast<char*>(blocks[0]) - 8;
    EXPECT_EQ(olk::load_word<void*>(header), heap);
    olk::store_word<uint64_t>(header, 7);
    EXPECT_EQ(cls.malloc_(nullptr), blocks[0]);
    EXPECT_EQ(olk::load_word<uint64_t>(header), 7u);
}

TEST_F(BlkAlloctor, TheReportedSizeIsTheBlockSize) {
    size_t usable = 0;
    EXPECT_NE(cls.malloc_(&usable), nullptr) << "growing";
    EXPECT_EQ(usable, 16u);
    usable = 0;
    EXPECT_NE(cls.malloc_(&usable), nullptr) << "from the head heap";
    EXPECT_EQ(usable, 16u);
}

TEST_F(BlkAlloctor, GrowingTakesTheClassLockThenTheRecordThenTheMapping) {
    spy::watch watch(spy::scope::memory_and_locks);
    watch.name(&cls.lock, "class");
    watch.name(&olk::get_olk_alloctor_self()->objheap.lock, "object heap");
    take(1);
    EXPECT_EQ(watch.trace(),
              (trace{"lock class", "lock object heap", "unlock object heap", "sysconf", "mmap 4096", "unlock class"}));
}

TEST_F(BlkAlloctor, ABlockFromAnExistingHeapTakesOnlyTheClassLock) {
    take(1);
    spy::watch watch(spy::scope::memory_and_locks);
    watch.name(&cls.lock, "class");
    void* p = cls.malloc_(nullptr);
    free_in(cls, p);
    EXPECT_EQ(watch.trace(), (trace{"lock class", "unlock class", "lock class", "unlock class"}));
}

TEST_F(BlkAlloctor, GrowingCountsTheNewHeapAndTheBlockThatIsTaken) {
    take(1);
    EXPECT_EQ(cls.heapcount, 1);
    EXPECT_EQ(cls.freecount, per_heap - 1);
    const olk::blk_heap* heap = cls.heaps;
    EXPECT_EQ(heap->freecount, per_heap - 1);
    EXPECT_EQ(heap->blkcount, per_heap);
    EXPECT_EQ(heap->blksize, 16u);
    EXPECT_EQ(heap->bump, 1u);
    EXPECT_EQ(heap->maplen, page);
    EXPECT_EQ(heap->freelist, nullptr);
    EXPECT_EQ(heap->next, nullptr);
}

TEST_F(BlkAlloctor, TheClassGrowsOnlyWhenNoHeapHasABlockLeft) {
    spy::watch watch;
    take(per_heap);
    EXPECT_EQ(watch.count(spy::kind::mmap), 1u);
    take(1);
    EXPECT_EQ(watch.count(spy::kind::mmap), 2u);
}

TEST_F(BlkAlloctor, FreedBlocksComeBeforeNeverUsedOnesTheLatestFirst) {
    const auto blocks = take(3);
    free_in(cls, blocks[0]);
    free_in(cls, blocks[2]);
    EXPECT_EQ(cls.heaps->freelist, blocks[2]);
    EXPECT_EQ(olk::load_word<void*>(blocks[2]), blocks[0]);
    EXPECT_EQ(olk::load_word<void*>(blocks[0]), nullptr);
    EXPECT_EQ(cls.malloc_(nullptr), blocks[2]);
    EXPECT_EQ(cls.malloc_(nullptr), blocks[0]);
    EXPECT_EQ(cls.heaps->bump, 3u);
    EXPECT_EQ(cls.malloc_(nullptr), cls.heaps->base + 3 * 24 + 8);
}

TEST_F(BlkAlloctor, TakingAndFreeingCountsInHeapAndClass) {
    const auto blocks = take(3);
    EXPECT_EQ(cls.freecount, 1u);
    free_in(cls, blocks[1]);
    EXPECT_EQ(cls.freecount, 2u);
    EXPECT_EQ(cls.heaps->freecount, 2u);
    cls.malloc_(nullptr);
    EXPECT_EQ(cls.freecount, 1u);
    EXPECT_EQ(cls.heaps->freecount, 1u);
}

TEST(BlkAlloctorFirstHeap, HasTheBlocksOfEachTableRow) {
    const struct {
        uint32_t size, per_heap, blocks;
        const char* why;
    } rows[] = {
        {16, 65536, 2048, "32768 / 16"},
        {2048, 16, 16, "16 blocks are never reduced"},
        {4194304, 2, 2, "fewer than 16 are not reduced"},
        {1024, 32, 32, "32768 bytes are small enough"},
        {1024, 33, 32, "33792 bytes are too many"},
        {8, 4097, 4096, "one block too many"},
        {2048, 17, 16, "the quotient is 16"},
        {2056, 17, 16, "the quotient is 15, and 16 the least"},
        {65536, 32, 16, "the quotient is 0"},
        {1920, 18, 17, "the quotient is 17"},
    };
    for (const auto& row : rows) {
        size_class cls(row.size, row.per_heap);
        void* p = cls.malloc_(nullptr);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(cls.heaps->blkcount, row.blocks) << row.why;
        EXPECT_EQ(cls.freecount, row.blocks - 1) << row.why;
        EXPECT_EQ(cls.heaps->maplen, ((row.size + 8) * row.blocks + page - 1) / page * page) << row.why;
    }
}

TEST(BlkAlloctorFirstHeap, With16ByteBlocksHas2048BlocksAndTheSecondHeapHas65536) {
    size_class cls(16, 65536);
    spy::watch watch;
    for (int i = 0; i < 2049; ++i)
        cls.malloc_(nullptr);
    EXPECT_EQ(watch.lengths(spy::kind::mmap), (std::vector<size_t>{49152, 1572864}));
    ASSERT_EQ(heaps_of(cls).size(), 2u);
    EXPECT_EQ(cls.heaps->blkcount, 2048u);
    EXPECT_EQ(cls.heaps->next->blkcount, 65536u);
    EXPECT_EQ(cls.freecount, 65535u);
}

TEST(BlkAlloctorFirstHeap, HasTheGivenNumberOfBlocksWhenCreatedWithTheClass) {
    size_class cls(16, 65536);
    ASSERT_TRUE(cls.add_first_heap_(2048));
    EXPECT_EQ(cls.heapcount, 1);
    EXPECT_EQ(cls.freecount, 2048u);
    EXPECT_EQ(cls.heaps->freecount, 2048u);
    EXPECT_EQ(cls.heaps->bump, 0u);
    EXPECT_TRUE(cls.valid());
}

TEST_F(BlkAlloctor, ANewHeapGoesDirectlyAfterTheHead) {
    take(per_heap * 4);
    const auto list = heaps();
    ASSERT_EQ(list.size(), 4u);
    EXPECT_EQ(cls.heapcount, 4);
    take(1);
    const auto longer = heaps();
    ASSERT_EQ(longer.size(), 5u);
    EXPECT_EQ(longer[0], list[0]);
    EXPECT_EQ(longer[2], list[1]);
    EXPECT_EQ(longer[3], list[2]);
    EXPECT_EQ(longer[4], list[3]);
}

using BlkAlloctorOrder = FullHeaps<4>;

TEST_F(BlkAlloctorOrder, TheListIsTheHeadThenTheYoungestFirst) {
    EXPECT_EQ(heaps(), (std::vector{heap[0], heap[3], heap[2], heap[1]}));
}

TEST_F(BlkAlloctorOrder, TheFirstHeapWithABlockServes) {
    free_in(cls, at[1][0]);
    free_in(cls, at[2][0]);
    free_in(cls, at[0][0]);
    EXPECT_EQ(cls.malloc_(nullptr), at[0][0]);
    EXPECT_EQ(cls.malloc_(nullptr), at[2][0]);
    EXPECT_EQ(cls.malloc_(nullptr), at[1][0]);
}

TEST_F(BlkAlloctorOrder, AHeapThatStillHasBlocksMovesToDirectlyAfterTheHead) {
    free_in(cls, at[1][0]);
    free_in(cls, at[1][1]);
    cls.malloc_(nullptr);
    EXPECT_EQ(heaps(), (std::vector{heap[0], heap[1], heap[3], heap[2]}));
}

TEST_F(BlkAlloctorOrder, AHeapThatIsNowFullStaysWhereItIs) {
    free_in(cls, at[1][0]);
    cls.malloc_(nullptr);
    EXPECT_EQ(heaps(), (std::vector{heap[0], heap[3], heap[2], heap[1]}));
}

TEST_F(BlkAlloctorOrder, TheHeapAfterTheHeadStaysWhereItIs) {
    free_in(cls, at[3][0]);
    free_in(cls, at[3][1]);
    cls.malloc_(nullptr);
    EXPECT_EQ(heaps(), (std::vector{heap[0], heap[3], heap[2], heap[1]}));
}

TEST_F(BlkAlloctorOrder, TheHeadNeverMoves) {
    for (int round = 0; round < 3; ++round)
        for (int i = 1; i < 4; ++i) {
            free_in(cls, at[i][0]);
            free_in(cls, at[i][1]);
            cls.malloc_(nullptr);
            cls.malloc_(nullptr);
            EXPECT_EQ(cls.heaps, heap[0]);
        }
}

TEST_F(BlkAlloctorOrder, FreeingMovesNoHeap) {
    free_in(cls, at[1][0]);
    free_in(cls, at[2][0]);
    EXPECT_EQ(heaps(), (std::vector{heap[0], heap[3], heap[2], heap[1]}));
}

TEST_F(BlkAlloctor, AFailedHeapMappingReturnsNullAndTheRecordIsFreed) {
    take(per_heap);
    const uint64_t records = free_records();
    spy::watch watch(spy::scope::memory_and_locks);
    watch.fail_mmap(1);
    size_t usable = 77;
    watch.name(&cls.lock, "class");
    EXPECT_EQ(cls.malloc_(&usable), nullptr);
    EXPECT_EQ(usable, 77u);
    EXPECT_EQ(cls.heapcount, 1);
    EXPECT_EQ(cls.freecount, 0u);
    EXPECT_EQ(free_records(), records);
    EXPECT_EQ(watch.trace().back(), "unlock class");
    watch.stop_failing();
    EXPECT_NE(cls.malloc_(&usable), nullptr);
    EXPECT_TRUE(cls.valid());
}

TEST_F(BlkAlloctor, AFailedFirstHeapLeavesTheClassWithoutAHeap) {
    spy::watch watch;
    watch.fail_mmap(1);
    EXPECT_EQ(cls.malloc_(nullptr), nullptr);
    EXPECT_EQ(cls.heaps, nullptr);
    EXPECT_EQ(cls.heapcount, 0);
    EXPECT_EQ(cls.freecount, 0u);
}

TEST_F(BlkAlloctor, WithoutAHeapRecordTheRequestReturnsNullAndNothingIsMapped) {
    const spy::no_more_records full;
    spy::watch watch;
    watch.fail_mmap(1, 1);
    EXPECT_EQ(cls.malloc_(nullptr), nullptr);
    EXPECT_EQ(watch.lengths(spy::kind::mmap), std::vector<size_t>{524288}) << "the object heap tried to map a page";
    EXPECT_EQ(cls.heaps, nullptr);
    EXPECT_EQ(cls.freecount, 0u);
}

//  Returns the line that the C library prints in the C locale when the assertion for a damaged class fails. In another
//  locale the line may be translated.
std::string broken_class_line() {
    return std::string(program_invocation_short_name) +
           ": ../com/olklib3/olk_alloctor:597: void* olk::blk_alloctor<LOCK>::malloc_(size_t*) [with LOCK = "
           "olk::spinlock; size_t = long unsigned int]: Assertion `pret != nullptr' failed.\n";
}

void take_untranslated(size_class& cls) {
    std::setlocale(LC_MESSAGES, "C");
    cls.malloc_(nullptr);
}

TEST(BlkAlloctorDeathTest, AFreeCountWithoutAnyHeapAbortsWithAFixedMessage) {
    size_class cls(16, 4);
    cls.freecount = 1;
    EXPECT_EXIT(take_untranslated(cls), testing::KilledBySignal(SIGABRT), testing::Eq(broken_class_line()));
}

TEST(BlkAlloctorDeathTest, AFreeCountWithOnlyFullHeapsAbortsWithAFixedMessage) {
    size_class cls(16, 4);
    for (int i = 0; i < 8; ++i)
        cls.malloc_(nullptr);
    cls.freecount = 1;
    EXPECT_EXIT(take_untranslated(cls), testing::KilledBySignal(SIGABRT), testing::Eq(broken_class_line()));
}

}  // namespace
