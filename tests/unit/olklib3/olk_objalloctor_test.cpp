#include "olk_objalloctor.h"

#include "mapping_spy.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <limits>
#include <new>

namespace {

using object_heap = olk::objalloctor_<olk::spinlock>;
using trace = std::vector<std::string>;

constexpr size_t page = 4096;
//  Number of slots of a small heap: one system page, 64 bytes per slot.
constexpr size_t slots = (page - 56) / 64;

class ObjAlloctor : public testing::Test {
protected:
    object_heap heap{page, 56};

    std::vector<void*> take(size_t count) {
        std::vector<void*> taken;
        for (size_t i = 0; i < count; ++i)
            taken.push_back(heap.malloc_(56));
        return taken;
    }
    std::vector<olk::obj_page*> pages() const {
        std::vector<olk::obj_page*> list;
        for (olk::obj_page* p = heap.pages; p != nullptr; p = p->next)
            list.push_back(p);
        return list;
    }
};

TEST(ObjAlloctorLayout, TheHeapsFieldsAreInOrder) {
    EXPECT_EQ(offsetof(object_heap, heapsize), 0u);
    EXPECT_EQ(offsetof(object_heap, objsize), 8u);
    EXPECT_EQ(offsetof(object_heap, freecount), 16u);
    EXPECT_EQ(offsetof(object_heap, pages), 24u);
    EXPECT_EQ(offsetof(object_heap, lock), 32u);
}

TEST(ObjAlloctorLayout, APageHeaderIsSevenWordsInOrder) {
    EXPECT_EQ(offsetof(olk::obj_page, maplen), 0u);
    EXPECT_EQ(offsetof(olk::obj_page, slotsize), 8u);
    EXPECT_EQ(offsetof(olk::obj_page, freecount), 16u);
    EXPECT_EQ(offsetof(olk::obj_page, slotcount), 24u);
    EXPECT_EQ(offsetof(olk::obj_page, bump), 32u);
    EXPECT_EQ(offsetof(olk::obj_page, freelist), 40u);
    EXPECT_EQ(offsetof(olk::obj_page, next), 48u);
    EXPECT_EQ(sizeof(olk::obj_page), 56u);
}

TEST(ObjAlloctorLayout, APageOf512KiBHolds8191SlotsOf64Bytes) {
    object_heap heap(524288, 56);
    EXPECT_EQ(heap.heapsize, 524288u);
    EXPECT_EQ(heap.objsize, 56u);
    EXPECT_EQ(heap.freecount, 8191u);
    ASSERT_NE(heap.pages, nullptr);
    EXPECT_EQ(heap.pages->maplen, 524288u);
    EXPECT_EQ(heap.pages->slotsize, 64u);
    EXPECT_EQ(heap.pages->freecount, 8191u);
    EXPECT_EQ(heap.pages->slotcount, 8191u);
    EXPECT_EQ(heap.pages->bump, 0u);
    EXPECT_EQ(heap.pages->freelist, nullptr);
    EXPECT_EQ(heap.pages->next, nullptr);
}

TEST(ObjAlloctorLayout, ASlotIsTheObjectSizeRoundedUpTo16) {
    const struct {
        uint64_t objsize, slotsize;
    } rows[] = {{1, 16}, {15, 16}, {16, 16}, {17, 32}, {48, 48}, {49, 64}, {56, 64}, {64, 64}, {65, 80}};
    for (const auto& row : rows) {
        object_heap heap(page, row.objsize);
        EXPECT_EQ(heap.pages->slotsize, row.slotsize) << row.objsize;
        EXPECT_EQ(heap.pages->slotcount, (page - 56) / row.slotsize) << row.objsize;
    }
}

TEST(ObjAlloctorLayout, APageIsRoundedUpToWholeSystemPagesAndFullyUsed) {
    object_heap heap(page + 1, 56);
    EXPECT_EQ(heap.heapsize, page + 1);
    EXPECT_EQ(heap.pages->maplen, 2 * page);
    EXPECT_EQ(heap.pages->slotcount, (2 * page - 56) / 64);
}

TEST(ObjAlloctorStart, TheLockIsInitialisedBeforeTheFirstPageIsMapped) {
    spy::watch watch(spy::scope::memory_and_locks);
    object_heap heap(524288, 56);
    EXPECT_EQ(watch.trace(), (trace{"init", "sysconf", "mmap 524288"}));
}

TEST(ObjAlloctorStart, WithoutMemoryThePageListStaysNull) {
    spy::watch watch;
    watch.fail_mmap(1, 1);
    object_heap heap(page, 56);
    EXPECT_EQ(heap.pages, nullptr);
    EXPECT_EQ(heap.freecount, 0u);
}

TEST(ObjAlloctorStart, TheFirstRequestMapsAMissingFirstPage) {
    spy::watch watch;
    watch.fail_mmap(1, 1);
    object_heap heap(page, 56);
    EXPECT_NE(heap.malloc_(56), nullptr);
    EXPECT_EQ(heap.freecount, slots - 1);
}

TEST_F(ObjAlloctor, TheRequestIsServedUnderTheLock) {
    spy::watch watch(spy::scope::memory_and_locks);
    void* p = heap.malloc_(56);
    EXPECT_EQ(watch.trace(), (trace{"lock", "unlock"}));
    watch.clear();
    EXPECT_TRUE(heap.free_(p));
    EXPECT_EQ(watch.trace(), (trace{"lock", "unlock"}));
}

TEST_F(ObjAlloctor, ASizeAboveTheMaximumReturnsNullAndTakesNoSlot) {
    EXPECT_EQ(heap.malloc_(57), nullptr);
    EXPECT_EQ(heap.malloc_(std::numeric_limits<size_t>::max()), nullptr);
    EXPECT_EQ(heap.freecount, slots);
    EXPECT_EQ(heap.pages->bump, 0u);
}

TEST_F(ObjAlloctor, EverySizeUpToTheMaximumGetsASlot) {
    for (size_t size = 0; size <= 56; ++size)
        EXPECT_NE(heap.malloc_(size), nullptr) << size;
}

TEST_F(ObjAlloctor, NeverUsedSlotsAreAllocatedInOrderAfterTheHeader) {
    const char* start = reinterpret_cast<const char*>(heap.pages);
    for (size_t i = 0; i < slots; ++i) {
        EXPECT_EQ(heap.malloc_(56), start + 56 + i * 64);
        EXPECT_EQ(heap.pages->bump, i + 1);
        EXPECT_EQ(heap.pages->freecount, slots - i - 1);
        EXPECT_EQ(heap.freecount, slots - i - 1);
    }
}

TEST_F(ObjAlloctor, FreedSlotsComeBeforeNeverUsedOnesTheLatestFirst) {
    const auto taken = take(3);
    heap.free_(taken[0]);
    heap.free_(taken[2]);
    EXPECT_EQ(heap.malloc_(1), taken[2]);
    EXPECT_EQ(heap.malloc_(1), taken[0]);
    EXPECT_EQ(heap.pages->bump, 3u);
    EXPECT_EQ(heap.malloc_(1), reinterpret_cast<char*>(heap.pages) + 56 + 3 * 64);
}

TEST_F(ObjAlloctor, FreedSlotsAreLinkedThroughTheirFirstWords) {
    const auto taken = take(2);
    heap.free_(taken[0]);
    heap.free_(taken[1]);
    EXPECT_EQ(heap.pages->freelist, taken[1]);
    EXPECT_EQ(olk::load_word<void*>(taken[1]), taken[0]);
    EXPECT_EQ(olk::load_word<void*>(taken[0]), nullptr);
    EXPECT_EQ(heap.pages->freecount, slots);
    EXPECT_EQ(heap.freecount, slots);
}

TEST_F(ObjAlloctor, APageIsMappedOnlyWhenNoPageHasASlotLeft) {
    spy::watch watch(spy::scope::memory_and_locks);
    take(slots);
    EXPECT_EQ(watch.count(spy::kind::mmap), 0u);
    watch.clear();
    take(1);
    EXPECT_EQ(watch.trace(), (trace{"lock", "sysconf", "mmap 4096", "unlock"}));
}

TEST_F(ObjAlloctor, ANewPageGoesToTheFront) {
    olk::obj_page* first = heap.pages;
    take(slots + 1);
    ASSERT_EQ(pages().size(), 2u);
    EXPECT_NE(heap.pages, first);
    EXPECT_EQ(heap.pages->next, first);
    EXPECT_EQ(heap.freecount, slots - 1);
    EXPECT_TRUE(heap.valid());
}

TEST_F(ObjAlloctor, WhenNoPageCanBeMappedTheRequestReturnsNullAndNothingChanges) {
    take(slots);
    spy::watch watch;
    watch.fail_mmap(1);
    EXPECT_EQ(heap.malloc_(56), nullptr);
    EXPECT_EQ(heap.freecount, 0u);
    EXPECT_EQ(pages().size(), 1u);
    watch.stop_failing();
    EXPECT_NE(heap.malloc_(56), nullptr);
}

TEST_F(ObjAlloctor, APositiveFreeCountWithoutPagesReturnsNull) {
    olk::obj_page* pages_kept = heap.pages;
    heap.pages = nullptr;
    EXPECT_EQ(heap.malloc_(56), nullptr);
    EXPECT_EQ(heap.freecount, slots);
    heap.pages = pages_kept;
}

TEST_F(ObjAlloctor, APositiveFreeCountWithFullPagesReturnsNull) {
    take(slots);
    heap.freecount = 1;
    EXPECT_EQ(heap.malloc_(56), nullptr);
    heap.freecount = 0;
}

//  Three full pages. The list contains the newest page first. at[i] contains the slots of page i, counted from 0 in the
//  order of creation.
class ObjAlloctorThreePages : public ObjAlloctor {
protected:
    void SetUp() override {
        for (auto& slots_of_page : at)
            slots_of_page = take(slots);
        before = pages();
    }
    std::vector<void*> at[3];
    std::vector<olk::obj_page*> before;
};

TEST_F(ObjAlloctorThreePages, APageAfterFullPagesServesItsFreeSlot) {
    heap.free_(at[1][5]);
    EXPECT_EQ(heap.malloc_(56), at[1][5]);
    EXPECT_EQ(heap.freecount, 0u);
}

TEST_F(ObjAlloctorThreePages, APageThatStillHasFreeSlotsMovesToTheFront) {
    heap.free_(at[0][1]);
    heap.free_(at[0][2]);
    heap.malloc_(56);
    EXPECT_EQ(pages(), (std::vector{before[2], before[0], before[1]}));
}

TEST_F(ObjAlloctorThreePages, APageThatIsNowFullStaysWhereItIs) {
    heap.free_(at[0][1]);
    heap.malloc_(56);
    EXPECT_EQ(pages(), before);
}

TEST_F(ObjAlloctorThreePages, TheFirstPageWithASlotServes) {
    heap.free_(at[0][1]);
    heap.free_(at[1][1]);
    EXPECT_EQ(heap.malloc_(56), at[1][1]);
    EXPECT_EQ(heap.malloc_(56), at[0][1]);
}

TEST_F(ObjAlloctorThreePages, FreeingMovesNoPage) {
    heap.free_(at[0][1]);
    heap.free_(at[1][1]);
    EXPECT_EQ(pages(), before);
}

TEST_F(ObjAlloctorThreePages, APageAfterTheHeadIsUnmappedWithItsLastSlot) {
    spy::watch watch(spy::scope::memory_and_locks);
    watch.name(before[1], "second");
    for (size_t i = 0; i + 1 < slots; ++i)
        heap.free_(at[1][i]);
    EXPECT_EQ(watch.count(spy::kind::munmap), 0u);
    EXPECT_EQ(heap.freecount, slots - 1);
    watch.clear();
    EXPECT_TRUE(heap.free_(at[1].back()));
    EXPECT_EQ(watch.trace(), (trace{"lock", "munmap second", "unlock"}));
    EXPECT_EQ(watch.lengths(spy::kind::munmap), std::vector<size_t>{page});
    EXPECT_EQ(pages(), (std::vector{before[0], before[2]}));
    EXPECT_EQ(heap.freecount, 0u);
    EXPECT_TRUE(heap.valid());
}

TEST_F(ObjAlloctorThreePages, TheHeadPageStaysMappedWhenEntirelyFree) {
    spy::watch watch;
    for (void* p : at[2])
        EXPECT_TRUE(heap.free_(p));
    EXPECT_EQ(watch.count(spy::kind::munmap), 0u);
    EXPECT_EQ(pages(), before);
    EXPECT_EQ(heap.freecount, slots);
}

TEST_F(ObjAlloctorThreePages, AFailedUnmapReturnsFalseAndRemovesThePage) {
    spy::watch watch;
    watch.fail_munmap(1, 1);
    for (size_t i = 0; i + 1 < slots; ++i)
        EXPECT_TRUE(heap.free_(at[1][i]));
    EXPECT_FALSE(heap.free_(at[1].back()));
    EXPECT_EQ(pages(), (std::vector{before[0], before[2]}));
    EXPECT_EQ(heap.freecount, 0u);
    olk::unmap_pages(before[1], page);
}

TEST(ObjAlloctorDestruction, UnmapsEveryPageInListOrderAndDestroysTheLock) {
    spy::watch watch(spy::scope::memory_and_locks);
    auto* doomed = new object_heap(page, 56);
    for (size_t i = 0; i < 2 * slots + 1; ++i)
        doomed->malloc_(56);
    watch.clear();
    watch.name(doomed->pages, "third");
    watch.name(doomed->pages->next, "second");
    watch.name(doomed->pages->next->next, "first");
    watch.name(&doomed->lock, "heap");
    delete doomed;
    EXPECT_EQ(watch.trace(), (trace{"munmap third", "munmap second", "munmap first", "destroy heap"}));
}

TEST(ObjAlloctorDestruction, LeavesAFreeCountOfZero) {
    alignas(object_heap) char memory[sizeof(object_heap)];
    auto* heap = new (memory) object_heap(page, 56);
    heap->~object_heap();
    //  The object is destroyed; volatile lets the test still read its bytes.
    const char* volatile bytes = memory;
    EXPECT_EQ(olk::load_word<uint64_t>(bytes + offsetof(object_heap, freecount)), 0u);
}

TEST_F(ObjAlloctor, NullAndForeignAddressesAreIgnored) {
    take(2);
    int foreign = 0;
    char* start = reinterpret_cast<char*>(heap.pages);
    EXPECT_FALSE(heap.free_(nullptr));
    EXPECT_FALSE(heap.free_(&foreign));
    EXPECT_FALSE(heap.free_(start)) << "the header is not a slot";
    EXPECT_FALSE(heap.free_(start + 55));
    EXPECT_FALSE(heap.free_(start + 56 + slots * 64)) << "the unused bytes after the last slot";
    EXPECT_EQ(heap.freecount, slots - 2);
    EXPECT_EQ(heap.pages->freelist, nullptr);
}

TEST_F(ObjAlloctor, TheFirstAndTheLastSlotBelongToThePage) {
    const auto taken = take(slots);
    EXPECT_TRUE(heap.free_(taken.front()));
    EXPECT_TRUE(heap.free_(taken.back()));
}

TEST_F(ObjAlloctor, TheValidityCheckDetectsAWrongCount) {
    EXPECT_TRUE(heap.valid());
    ++heap.freecount;
    EXPECT_FALSE(heap.valid());
    --heap.freecount;
    ++heap.pages->freecount;
    EXPECT_FALSE(heap.valid());
    --heap.pages->freecount;
    EXPECT_TRUE(heap.valid());
}

TEST_F(ObjAlloctor, TheValidityCheckDetectsALinkOutsideTheSlots) {
    const auto taken = take(3);
    heap.free_(taken[0]);
    heap.pages->freelist = static_cast<char*>(taken[0]) + 8;
    EXPECT_FALSE(heap.valid()) << "between two slots";
    heap.pages->freelist = static_cast<char*>(taken[2]) + 64;
    EXPECT_FALSE(heap.valid()) << "a slot that was never allocated";
    heap.pages->freelist = taken[0];
    EXPECT_TRUE(heap.valid());
}

}  // namespace
