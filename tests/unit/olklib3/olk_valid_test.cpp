//  The valid() checks: they detect damage such as a count that is too high or too low. Checking builds and the other
//  tests rely on these checks.
#include "olk_allocator.h"
#include "size_class_fixture.h"

#include <utility>

namespace {

//  Sets `field` to `value`, calls whole.valid() and restores the field. Returns the result of the call.
template <class WHOLE, class FIELD, class VALUE>
bool valid_with(WHOLE& whole, FIELD& field, VALUE value) {
    const FIELD kept = std::exchange(field, static_cast<FIELD>(value));
    const bool result = whole.valid();
    field = kept;
    return result;
}

//  A class with two heaps; heap[0] is the head. Each heap has one free block.
class ClassWalk : public FullHeaps<2> {
protected:
    void SetUp() override {
        FullHeaps::SetUp();
        give_back({at[0][1], at[1][1]});
        ASSERT_TRUE(cls.valid());
    }
    void TearDown() override { EXPECT_TRUE(cls.valid()) << "the test did not undo its damage"; }
};

TEST_F(ClassWalk, DetectsTheClassesCountsAboveAndBelow) {
    EXPECT_FALSE(valid_with(cls, cls.freecount, 1));
    EXPECT_FALSE(valid_with(cls, cls.freecount, 3));
    EXPECT_FALSE(valid_with(cls, cls.heapcount, 1));
    EXPECT_FALSE(valid_with(cls, cls.heapcount, 3));
}

TEST_F(ClassWalk, DetectsAHeapOfAnotherClass) {
    size_class other(16, per_heap);
    EXPECT_FALSE(valid_with(cls, heap[0]->owner, &other));
}

TEST_F(ClassWalk, DetectsABlockSizeAboveAndBelowTheHeaps) {
    EXPECT_FALSE(valid_with(cls, cls.blksize, 8));
    EXPECT_FALSE(valid_with(cls, cls.blksize, 24));
}

TEST_F(ClassWalk, DetectsAHeapAfterTheHeadThatHasMoreOrFewerBlocksThanItsClass) {
    EXPECT_FALSE(valid_with(cls, cls.blkperheap, 3));
    EXPECT_FALSE(valid_with(cls, cls.blkperheap, 5));
}

TEST(ClassWalkOrder, DetectsAWrongBlockCountInEitherOrderOfTheRecords) {
    for (const bool head_is_above : {true, false}) {
        void* one = olk::memheap_::operator new(sizeof(olk::blk_heap));
        void* other = olk::memheap_::operator new(sizeof(olk::blk_heap));
        if ((one > other) != head_is_above)
            std::swap(one, other);
        olk::memheap_::operator delete(other);
        olk::memheap_::operator delete(one);  // freed last, so the next request gets it
        size_class cls(16, 1);
        cls.malloc_(nullptr);
        cls.malloc_(nullptr);
        ASSERT_EQ(cls.heaps, one);
        ASSERT_EQ(cls.heaps->next, other);
        EXPECT_TRUE(cls.valid());
        EXPECT_FALSE(valid_with(cls, cls.blkperheap, 2));
    }
}

TEST_F(ClassWalk, DetectsAWrongFreeCountOfAHeapEvenIfTheClassAgrees) {
    cls.freecount = 3;
    EXPECT_FALSE(valid_with(cls, heap[0]->freecount, 2));
    cls.freecount = 1;
    EXPECT_FALSE(valid_with(cls, heap[0]->freecount, 0));
    cls.freecount = 2;
}

TEST_F(ClassWalk, DetectsAFreeBlockAtAnInvalidAddress) {
    char* const between = static_cast<char*>(at[0][0]) + olk::blk_header_size;
    olk::store_word(at[0][0], heap[0]);
    olk::store_word<void*>(between, nullptr);
    EXPECT_FALSE(valid_with(cls, heap[0]->freelist, between));
}

TEST(HeapWalk, DetectsAFreeBlockThatWasNeverAllocated) {
    size_class cls(16, 4);
    void* const first = cls.malloc_(nullptr);
    free_in(cls, first);
    char* const second = static_cast<char*>(first) + 16 + olk::blk_header_size;
    olk::store_word(second - olk::blk_header_size, cls.heaps);
    olk::store_word<void*>(second, nullptr);
    EXPECT_FALSE(valid_with(cls, cls.heaps->freelist, second));
    EXPECT_TRUE(cls.valid());
}

TEST(HeapWalk, DetectsAFreeBlockWhoseHeaderDoesNotNameItsHeap) {
    size_class cls(16, 4);
    void* const block = cls.malloc_(nullptr);
    free_in(cls, block);
    olk::store_word<void*>(static_cast<char*>(block) - olk::blk_header_size, nullptr);
    EXPECT_FALSE(cls.valid());
}

TEST(HeapWalk, DetectsACyclicListOfFreeBlocks) {
    size_class cls(16, 4);
    void* const block = cls.malloc_(nullptr);
    free_in(cls, block);
    olk::store_word(block, block);
    EXPECT_FALSE(cls.valid());
}

TEST(HeapWalk, DetectsMoreAllocatedBlocksThanExist) {
    size_class cls(16, 4);
    cls.malloc_(nullptr);
    cls.freecount = cls.heaps->freecount = UINT32_MAX;  // both counts agree
    EXPECT_FALSE(valid_with(cls, cls.heaps->bump, 5));
    cls.freecount = cls.heaps->freecount = 3;
    EXPECT_TRUE(cls.valid());
}

TEST(HeapWalk, AcceptsAHeapWhoseBlocksFillItsMapping) {
    size_class cls(504, 8);
    cls.malloc_(nullptr);
    ASSERT_EQ(cls.heaps->maplen, 8 * (504 + olk::blk_header_size));
    EXPECT_TRUE(cls.valid());
    EXPECT_FALSE(valid_with(cls, cls.heaps->maplen, 8 * (504 + olk::blk_header_size) - 1));
}

TEST(TableWalk, DetectsDamageInTheFirstClassAndInTheLast) {
    olk::allocator allocator;
    EXPECT_FALSE(valid_with(allocator, allocator.classes[0]->freecount, 0));
    EXPECT_FALSE(valid_with(allocator, allocator.classes[29]->freecount, 1));
    EXPECT_TRUE(allocator.valid());
}

TEST(TableWalk, DetectsAMissingClass) {
    olk::allocator allocator;
    EXPECT_FALSE(valid_with(allocator, allocator.classes[3], nullptr));
    EXPECT_TRUE(allocator.valid());
}

TEST(TableWalk, DetectsTwoClassesOfOneSizeAndTwoInTheWrongOrder) {
    olk::allocator allocator;
    auto& classes = allocator.classes;
    EXPECT_FALSE(valid_with(allocator, classes[0], classes[1]));
    for (const int i : {0, 28}) {
        std::swap(classes[i], classes[i + 1]);
        EXPECT_FALSE(allocator.valid()) << i;
        std::swap(classes[i], classes[i + 1]);
    }
    EXPECT_TRUE(allocator.valid());
}

TEST(ObjectWalk, DetectsCountsAboveAndBelow) {
    olk::objalloctor_<olk::spinlock> heap(page, 56);
    heap.malloc_(56);
    const uint64_t free_slots = heap.freecount;
    ASSERT_TRUE(heap.valid());
    for (const uint64_t wrong : {free_slots - 1, free_slots + 1}) {
        EXPECT_FALSE(valid_with(heap, heap.freecount, wrong));
        heap.freecount = wrong;
        EXPECT_FALSE(valid_with(heap, heap.pages->freecount, wrong)) << "the page's count is wrong by the same amount";
        heap.freecount = free_slots;
    }
}

TEST(ObjectWalk, DetectsMoreAllocatedSlotsThanExist) {
    olk::objalloctor_<olk::spinlock> heap(page, 56);
    const uint64_t slots = heap.pages->slotcount;
    heap.freecount = heap.pages->freecount = UINT64_MAX;  // both counts agree
    EXPECT_FALSE(valid_with(heap, heap.pages->bump, slots + 1));
    heap.freecount = heap.pages->freecount = slots;
    EXPECT_TRUE(heap.valid());
}

TEST(ObjectWalk, DetectsACyclicListOfFreeSlots) {
    olk::objalloctor_<olk::spinlock> heap(page, 56);
    void* const slot = heap.malloc_(56);
    heap.free_(slot);
    olk::store_word(slot, slot);
    EXPECT_FALSE(heap.valid());
}

TEST(ObjectWalk, DetectsAnEntirelyFreePageAfterTheHead) {
    olk::objalloctor_<olk::spinlock> heap(page, 56);
    const uint64_t slots = heap.pages->slotcount;
    for (uint64_t i = 0; i <= slots; ++i)
        heap.malloc_(56);
    for (int order = 0; order < 2; ++order) {
        olk::obj_page& head = *heap.pages;
        olk::obj_page& behind = *head.next;
        ASSERT_TRUE(heap.valid());
        const uint64_t used = std::exchange(behind.bump, 0);
        behind.freecount += used;
        heap.freecount += used;
        EXPECT_FALSE(heap.valid());
        behind.bump = used;
        behind.freecount -= used;
        heap.freecount -= used;
        ASSERT_EQ(behind.next, nullptr);
        behind.next = &head;
        head.next = nullptr;
        heap.pages = &behind;
    }
}

}  // namespace
