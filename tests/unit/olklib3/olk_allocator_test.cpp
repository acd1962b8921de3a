#include "olk_alloctor"

#include "mapping_spy.h"
#include "size_classes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <type_traits>

#include <unistd.h>

namespace {

constexpr size_t largest_class = 4194304;

//  Returns the usable size of a block for this request. Frees the block.
size_t usable_of(olk::allocator& allocator, size_t request) {
    size_t usable = 0;
    allocator.free_(allocator.malloc_(request, &usable));
    return usable;
}

TEST(AllocatorLayout, TheFieldsAreInOrder) {
    EXPECT_EQ(offsetof(olk::allocator, classcount), 0u);
    EXPECT_EQ(offsetof(olk::allocator, bigcount), 4u);
    EXPECT_EQ(offsetof(olk::allocator, classes), 8u);
    EXPECT_EQ(sizeof(olk::allocator), 8u + 40 * sizeof(void*));
    EXPECT_TRUE((std::is_same_v<decltype(olk::allocator::classcount), int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(olk::allocator::bigcount), std::atomic<uint32_t>>));
    EXPECT_TRUE(std::atomic<uint32_t>::is_always_lock_free);
}

TEST(AllocatorLayout, TheObjectHeapIsBeforeTheAllocator) {
    EXPECT_EQ(offsetof(olk::olk_allocator_, objheap), 0u);
    EXPECT_EQ(offsetof(olk::olk_allocator_, alloc), sizeof(olk::objalloctor_<olk::spinlock>));
}

TEST(AllocatorGlobals, BothFunctionsReturnTheInstance) {
    EXPECT_EQ(olk::get_olk_alloctor_self(), &olk::g_olk_allocator);
    EXPECT_EQ(olk::get_olk_allocator(), &olk::g_olk_allocator.alloc);
    EXPECT_EQ(static_cast<void*>(olk::get_olk_alloctor_self()), static_cast<void*>(&olk::g_olk_allocator.objheap));
}

TEST(AllocatorGlobals, IsUnlockedUnlessTheObjectHeapOrAClassIsLocked) {
    olk::olk_allocator_& self = *olk::get_olk_alloctor_self();
    EXPECT_TRUE(self.unlocked());
    const auto expect_locked_by = [&self](olk::spinlock& lock) {
        lock.lock();
        EXPECT_FALSE(self.unlocked());
        lock.unlock();
        EXPECT_TRUE(self.unlocked());
    };
    expect_locked_by(self.objheap.lock);
    for (int32_t i = 0; i < self.alloc.classcount; ++i)
        expect_locked_by(self.alloc.classes[i]->lock);
}

TEST(AllocatorGlobals, TheGlibcTuningIsAnEmptyObjectWithoutADestructor) {
    EXPECT_EQ(sizeof olk::g_olk_glibc_noarena, 1u);
    EXPECT_TRUE(std::is_empty_v<decltype(olk::g_olk_glibc_noarena)>);
    EXPECT_TRUE(std::is_trivially_destructible_v<decltype(olk::g_olk_glibc_noarena)>);
}

TEST(AllocatorClasses, NamedSizesTakeTheirClasses) {
    olk::allocator allocator;
    const struct {
        size_t request, usable;
    } rows[] = {{0, 16},          {1, 16},       {16, 16},           {17, 32},
                {1424, 1424},     {1425, 2048},  {4194303, 4194304}, {largest_class, 4194304},
                {8192, 8192},     {8193, 12288}, {1048576, 1048576}, {1048577, 2097152},
                {655361, 1048576}};
    for (const auto& row : rows)
        EXPECT_EQ(usable_of(allocator, row.request), row.usable) << row.request;
}

TEST(AllocatorClasses, EverySizeTakesTheFirstClassThatHoldsIt) {
    const auto rows = read_size_classes();
    olk::allocator allocator;
    size_t wrong = 0;
    auto expected = rows.begin();
    for (size_t size = 0; size <= largest_class; ++size) {
        if (size > expected->blksize)
            ++expected;
        size_t usable = 0;
        void* p = allocator.malloc_(size, &usable);
        const olk::blk_heap* heap = olk::blk_heap::of(p);
        if (usable != expected->blksize || heap == nullptr || heap->owner != allocator.classes[expected - rows.begin()])
            ++wrong;
        allocator.free_(p);
    }
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(expected, rows.end() - 1);
    EXPECT_EQ(usable_of(allocator, largest_class + 1), 4198384u);
}

TEST(AllocatorClasses, TheBlockComesFromItsClassAndIsFreedToIt) {
    olk::allocator allocator;
    void* p = allocator.malloc_(100, nullptr);
    olk::blk_alloctor<olk::spinlock>* cls = allocator.classes[4];
    EXPECT_EQ(olk::blk_heap::of(p)->owner, cls);
    EXPECT_EQ(cls->freecount, 255u);
    allocator.free_(p);
    EXPECT_EQ(cls->freecount, 256u);
    EXPECT_EQ(cls->heaps->freelist, p);
}

TEST(AllocatorClasses, UsableSizeIsTheSizeThatMallocReported) {
    olk::allocator allocator;
    for (unsigned request : {0u, 17u, 1425u, 4194304u, 4194305u, 10000000u}) {
        size_t usable = 0;
        void* p = allocator.malloc_(request, &usable);
        EXPECT_EQ(olk::allocator::usable_size(p), usable) << request;
        allocator.free_(p);
    }
}

TEST(AllocatorClasses, EveryUsableByteCanBeWritten) {
    olk::allocator allocator;
    for (const size_row& row : read_size_classes()) {
        void* blocks[] = {allocator.malloc_(row.blksize, nullptr), allocator.malloc_(row.blksize, nullptr)};
        std::memset(blocks[0], 0xff, row.blksize);
        std::memset(blocks[1], 0xff, row.blksize);
        EXPECT_EQ(olk::allocator::usable_size(blocks[1]), row.blksize);
        allocator.free_(blocks[0]);
        allocator.free_(blocks[1]);
    }
    EXPECT_TRUE(allocator.valid());
}

TEST(AllocatorClasses, ARequestTakesOnlyTheLockOfItsClass) {
    olk::allocator allocator;
    allocator.free_(allocator.malloc_(500, nullptr));
    spy::watch watch(spy::scope::memory_and_locks);
    watch.name(&allocator.classes[7]->lock, "class of 512");
    allocator.free_(allocator.malloc_(500, nullptr));
    EXPECT_EQ(watch.trace(), (std::vector<std::string>{"lock class of 512", "unlock class of 512", "lock class of 512",
                                                       "unlock class of 512"}));
}

TEST(AllocatorBigBlocks, BeginAbove4MiBWithAMappingOf4198400BytesAnd4198384Usable) {
    olk::allocator allocator;
    spy::watch watch;
    size_t usable = 0;
    void* p = allocator.malloc_(largest_class + 1, &usable);
    EXPECT_EQ(watch.lengths(spy::kind::mmap), std::vector<size_t>{4198400});
    EXPECT_EQ(usable, 4198384u);
    allocator.free_(p);
}

TEST(AllocatorBigBlocks, HoldTheirLengthAndANullBeforeTheUsersBytes) {
    olk::allocator allocator;
    spy::watch watch;
    auto* p = static_cast<char*>(allocator.malloc_(5000000, nullptr));
    EXPECT_EQ(watch.calls().back().address, p - 16);
    EXPECT_EQ(olk::load_word<uint64_t>(p - 16), watch.calls().back().value);
    EXPECT_EQ(olk::load_word<uint64_t>(p - 16), 5001216u);
    EXPECT_EQ(olk::load_word<uint64_t>(p - 8), 0u);
    EXPECT_EQ(olk::blk_heap::of(p), nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
    allocator.free_(p);
}

TEST(AllocatorBigBlocks, EveryUsableByteCanBeWritten) {
    olk::allocator allocator;
    size_t usable = 0;
    void* p = allocator.malloc_(largest_class + 1, &usable);
    std::memset(p, 0xff, usable);
    EXPECT_EQ(olk::allocator::usable_size(p), usable);
    allocator.free_(p);
}

TEST(AllocatorBigBlocks, TheLengthIsTheRequestAnd16RoundedUpToPages) {
    olk::allocator allocator;
    const struct {
        size_t request, mapped;
    } rows[] = {{4198384, 4198400}, {4198385, 4202496}, {8388608, 8392704}, {9437184 - 16, 9437184}};
    for (const auto& row : rows) {
        spy::watch watch;
        allocator.free_(allocator.malloc_(row.request, nullptr));
        EXPECT_EQ(watch.lengths(spy::kind::mmap), std::vector<size_t>{row.mapped}) << row.request;
        EXPECT_EQ(watch.lengths(spy::kind::munmap), std::vector<size_t>{row.mapped}) << row.request;
    }
}

TEST(AllocatorBigBlocks, AreCountedWhileTheyLive) {
    olk::allocator allocator;
    EXPECT_EQ(allocator.bigcount, 0u);
    void* first = allocator.malloc_(5000000, nullptr);
    void* second = allocator.malloc_(6000000, nullptr);
    EXPECT_EQ(allocator.bigcount, 2u);
    allocator.free_(first);
    EXPECT_EQ(allocator.bigcount, 1u);
    allocator.free_(second);
    EXPECT_EQ(allocator.bigcount, 0u);
}

TEST(AllocatorBigBlocks, ClassBlocksAreNotCounted) {
    olk::allocator allocator;
    void* p = allocator.malloc_(largest_class, nullptr);
    EXPECT_EQ(allocator.bigcount, 0u);
    allocator.free_(p);
    EXPECT_EQ(allocator.bigcount, 0u);
}

TEST(AllocatorBigBlocks, FreeingUnmapsTheWholeMapping) {
    olk::allocator allocator;
    auto* p = static_cast<char*>(allocator.malloc_(5000000, nullptr));
    spy::watch watch;
    allocator.free_(p);
    ASSERT_EQ(watch.calls().size(), 1u);
    EXPECT_EQ(watch.calls()[0].what, spy::kind::munmap);
    EXPECT_EQ(watch.calls()[0].address, p - 16);
    EXPECT_EQ(watch.calls()[0].value, 5001216u);
}

TEST(AllocatorBigBlocks, TakeNoLock) {
    olk::allocator allocator;
    spy::watch watch(spy::scope::memory_and_locks);
    allocator.free_(allocator.malloc_(5000000, nullptr));
    EXPECT_EQ(watch.trace(), (std::vector<std::string>{"sysconf", "mmap 5001216", "munmap 5001216"}));
}

TEST(AllocatorOutsize, MayBeNull) {
    olk::allocator allocator;
    void* small = allocator.malloc_(1, nullptr);
    EXPECT_NE(small, nullptr);
    void* big = allocator.malloc_(5000000, nullptr);
    EXPECT_NE(big, nullptr);
    EXPECT_EQ(allocator.bigcount, 1u) << "a big block is also counted without outsize";
    allocator.free_(small);
    allocator.free_(big);
}

TEST(AllocatorFree, NullDoesNothing) {
    olk::allocator allocator;
    spy::watch watch(spy::scope::memory_and_locks);
    allocator.free_(nullptr);
    EXPECT_EQ(watch.trace(), std::vector<std::string>{});
    EXPECT_EQ(allocator.bigcount, 0u);
}

TEST(AllocatorForkDeathTest, AForkedChildWorksOnItsOwnCopy) {
    olk::allocator& allocator = *olk::get_olk_allocator();
    auto* p = static_cast<char*>(allocator.malloc_(100, nullptr));
    std::strcpy(p, "parent");
    const auto child = [&] {
        const bool inherited = std::strcmp(p, "parent") == 0;
        std::strcpy(p, "child");
        allocator.free_(p);
        const bool works = allocator.malloc_(100, nullptr) == p && allocator.valid();
        _exit(inherited && works ? 0 : 1);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
    EXPECT_STREQ(p, "parent");
    allocator.free_(p);
}

TEST(AllocatorMainHeader, IncludesTheString) {
    const olk::string text("chief");
    EXPECT_EQ(text.size(), 5u);
}

}  // namespace
