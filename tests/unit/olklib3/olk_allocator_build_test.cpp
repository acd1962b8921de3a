//  Construction and destruction of an allocator, step by step, and classes that are added to its table.
#include "mapping_spy.h"
#include "size_classes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>

namespace {

using trace = std::vector<std::string>;

olk::objalloctor_<olk::spinlock>& process_heap() {
    return olk::get_olk_alloctor_self()->objheap;
}

class AllocatorSteps : public testing::Test {
protected:
    spy::watch watch{spy::scope::memory_and_locks};

    void SetUp() override { watch.name(&process_heap().lock, "records"); }

    static void append(trace& steps, const trace& more) { steps.insert(steps.end(), more.begin(), more.end()); }
    static trace one_record() { return {"lock records", "unlock records"}; }
};

TEST_F(AllocatorSteps, TheObjectHeapIsBuiltBeforeThirtyClassesAndThreeHeaps) {
    auto built = std::make_unique<olk::olk_allocator_>();
    watch.name(&built->objheap.lock, "object heap");
    trace expected = {"init object heap", "sysconf", "mmap 524288"};
    for (int i = 0; i < built->alloc.classcount; ++i) {
        watch.name(&built->alloc.classes[i]->lock, "class " + std::to_string(i));
        append(expected, one_record());
        append(expected, {"init class " + std::to_string(i)});
        const char* const first_heap[] = {"mmap 49152", "mmap 40960", "mmap 36864"};
        if (i < 3) {
            append(expected, one_record());
            append(expected, {"sysconf", first_heap[i]});
        }
    }
    EXPECT_EQ(built->alloc.classcount, 30);
    EXPECT_EQ(watch.trace(), expected);
}

TEST_F(AllocatorSteps, ClassesAreDestroyedInTableOrderBeforeTheObjectHeap) {
    auto built = std::make_unique<olk::olk_allocator_>();
    for (int i = 0; i < 2049; ++i)
        built->alloc.malloc_(16, nullptr);
    built->alloc.malloc_(2000, nullptr);
    watch.clear();
    watch.name(&built->objheap.lock, "object heap");
    trace expected;
    for (int i = 0; i < 30; ++i) {
        const auto* cls = built->alloc.classes[i];
        int number = 0;
        for (const olk::blk_heap* heap = cls->heaps; heap != nullptr; heap = heap->next) {
            const std::string name = "heap " + std::to_string(i) + "." + std::to_string(number++);
            watch.name(heap->base, name);
            append(expected, {"munmap " + name});
            append(expected, one_record());
        }
        watch.name(&cls->lock, "class " + std::to_string(i));
        append(expected, {"destroy class " + std::to_string(i)});
        append(expected, one_record());
    }
    append(expected, {"munmap 524288", "destroy object heap"});
    built.reset();
    EXPECT_EQ(watch.trace(), expected);
}

TEST(AllocatorBuild, TheTableStartsWithThirtyClassesAndNullsAfterThem) {
    olk::allocator allocator;
    EXPECT_EQ(allocator.classcount, 30);
    EXPECT_EQ(allocator.bigcount, 0u);
    for (int i = 0; i < 40; ++i)
        EXPECT_EQ(allocator.classes[i] != nullptr, i < 30) << i;
    EXPECT_TRUE(allocator.valid());
}

TEST(AllocatorBuild, TheProcessWideTableHasThirtyClasses) {
    EXPECT_EQ(olk::get_olk_allocator()->classcount, 30);
    EXPECT_TRUE(olk::get_olk_allocator()->valid());
}

TEST(AllocatorBuild, AllRecordsComeFromTheObjectHeapAndAreFreed) {
    const uint64_t before = process_heap().freecount;
    auto allocator = std::make_unique<olk::allocator>();
    EXPECT_EQ(process_heap().freecount, before - 30 - 3);
    allocator.reset();
    EXPECT_EQ(process_heap().freecount, before);
}

TEST(AllocatorDestruction, LeavesAnEmptyTable) {
    alignas(olk::allocator) char memory[sizeof(olk::allocator)];
    auto* allocator = new (memory) olk::allocator;
    allocator->~allocator();
    //  The object is destroyed; volatile lets the test still read its bytes.
    const char* volatile bytes = memory;
    EXPECT_EQ(olk::load_word<int32_t>(bytes + offsetof(olk::allocator, classcount)), 0);
    for (size_t i = 0; i < 40; ++i)
        EXPECT_EQ(olk::load_word<void*>(bytes + offsetof(olk::allocator, classes) + i * sizeof(void*)), nullptr);
}

TEST(AllocatorDestruction, AllocatedBlocksAreUnmappedWithTheirHeaps) {
    spy::watch watch;
    {
        olk::allocator allocator;
        for (unsigned size : {1u, 100u, 1000u, 100000u, 4000000u})
            allocator.malloc_(size, nullptr);
    }
    auto mapped = watch.lengths(spy::kind::mmap);
    auto unmapped = watch.lengths(spy::kind::munmap);
    std::sort(mapped.begin(), mapped.end());
    std::sort(unmapped.begin(), unmapped.end());
    EXPECT_EQ(mapped, unmapped);
}

TEST(AllocatorDestruction, BigBlocksStayMapped) {
    char* big = nullptr;
    {
        olk::allocator allocator;
        big = static_cast<char*>(allocator.malloc_(5000000, nullptr));
        big[0] = 'b';
    }
    EXPECT_EQ(big[0], 'b');
    EXPECT_EQ(olk::load_word<uint64_t>(big - 16), 5001216u);
    EXPECT_TRUE(olk::unmap_pages(big - 16, 5001216));
}

TEST(AllocatorAddClass, AppendsAClassWithoutAHeap) {
    olk::allocator allocator;
    EXPECT_TRUE(allocator.add_class_(5000001, 2, false));
    EXPECT_EQ(allocator.classcount, 31);
    EXPECT_EQ(allocator.classes[30]->blksize, 5000008u) << "rounded up to 8";
    EXPECT_EQ(allocator.classes[30]->blkperheap, 2u);
    EXPECT_EQ(allocator.classes[30]->heaps, nullptr);
    EXPECT_EQ(allocator.classes[30]->freecount, 0u);
    size_t usable = 0;
    allocator.malloc_(5000001, &usable);
    EXPECT_EQ(usable, 5000008u);
    EXPECT_EQ(allocator.bigcount, 0u);
}

TEST(AllocatorAddClass, AppendsAClassWithItsFirstHeap) {
    olk::allocator allocator;
    spy::watch watch;
    EXPECT_TRUE(allocator.add_class_(1000, 100, true));
    const auto* cls = allocator.classes[30];
    EXPECT_EQ(watch.lengths(spy::kind::mmap), std::vector<size_t>{32768}) << "32 blocks of 1008 bytes";
    EXPECT_EQ(cls->heapcount, 1);
    EXPECT_EQ(cls->freecount, 32u);
    EXPECT_EQ(cls->blkperheap, 100u) << "the unreduced value";
    EXPECT_EQ(cls->heaps->blkcount, 32u);
    EXPECT_EQ(cls->heaps->freecount, 32u);
    EXPECT_EQ(cls->heaps->blksize, 1000u);
    EXPECT_EQ(cls->heaps->owner, cls);
}

TEST(AllocatorAddClass, AFirstHeapCreatedWithTheClassUsesTheUnroundedSize) {
    olk::allocator allocator;
    EXPECT_TRUE(allocator.add_class_(1057, 100, true));
    EXPECT_EQ(allocator.classes[30]->blksize, 1064u);
    EXPECT_EQ(allocator.classes[30]->freecount, 31u) << "32768 / 1057, where 32768 / 1064 is 30";
}

TEST(AllocatorAddClass, AFirstHeapCreatedLaterUsesTheRoundedSize) {
    olk::allocator allocator;
    EXPECT_TRUE(allocator.add_class_(1057, 100, false));
    allocator.classes[30]->malloc_(nullptr);
    EXPECT_EQ(allocator.classes[30]->freecount, 29u);
}

TEST(AllocatorAddClass, AMissingFirstHeapChangesNothing) {
    olk::allocator allocator;
    const uint64_t records = process_heap().freecount;
    spy::watch watch(spy::scope::memory_and_locks);
    watch.fail_mmap(1);
    EXPECT_FALSE(allocator.add_class_(5000000, 2, true));
    EXPECT_EQ(allocator.classcount, 30);
    EXPECT_EQ(allocator.classes[30], nullptr);
    EXPECT_EQ(process_heap().freecount, records);
    const auto steps = watch.trace();
    EXPECT_EQ(std::count(steps.begin(), steps.end(), "init"), 1);
    EXPECT_EQ(std::count(steps.begin(), steps.end(), "destroy"), 1);
}

TEST(AllocatorAddClass, FailsWithoutAClassRecord) {
    olk::allocator allocator;
    const spy::no_more_records full;
    spy::watch watch;
    watch.fail_mmap(1);
    EXPECT_FALSE(allocator.add_class_(5000000, 2, false));
    EXPECT_EQ(allocator.classcount, 30);
}

TEST(AllocatorAddClass, FailsWithoutAHeapRecordAndFreesTheClassRecord) {
    olk::allocator allocator;
    void* last_record = olk::memheap_::operator new(56);
    const spy::no_more_records full;
    olk::memheap_::operator delete(last_record);
    ASSERT_EQ(process_heap().freecount, 1u);
    spy::watch watch;
    watch.fail_mmap(1);
    EXPECT_FALSE(allocator.add_class_(5000000, 2, true));
    EXPECT_EQ(allocator.classcount, 30);
    EXPECT_EQ(process_heap().freecount, 1u);
}

}  // namespace
