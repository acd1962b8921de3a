//  The allocator when memory is exhausted: a request returns null and changes nothing, and the table lacks a class if
//  the mapping of its first heap failed at the start. Also the allocator when memory cannot be unmapped.
#include "mapping_spy.h"
#include "size_classes.h"
#include "surroundings.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include <sys/resource.h>
#include <unistd.h>

namespace {

TEST(AllocatorLimit, RequestsNearTheLargestNumberReturnNull) {
    olk::allocator allocator;
    size_t usable = 77;
    for (size_t below = 0; below <= 3 * 4096; ++below)
        ASSERT_EQ(allocator.malloc_(SIZE_MAX - below, &usable), nullptr) << "SIZE_MAX - " << below;
    for (int bits = 47; bits < 64; ++bits)
        ASSERT_EQ(allocator.malloc_(size_t{1} << bits, &usable), nullptr) << "2 to the power of " << bits;
    EXPECT_EQ(usable, 77u);
    EXPECT_EQ(allocator.bigcount, 0u);
}

TEST(AllocatorLimit, AFailedBigMappingReturnsNullAndIsNotCounted) {
    olk::allocator allocator;
    spy::watch watch;
    watch.fail_mmap(1, 1);
    size_t usable = 77;
    EXPECT_EQ(allocator.malloc_(5000000, &usable), nullptr);
    EXPECT_EQ(usable, 77u);
    EXPECT_EQ(allocator.bigcount, 0u);
    void* p = allocator.malloc_(5000000, &usable);
    EXPECT_NE(p, nullptr);
    allocator.free_(p);
}

TEST(AllocatorLimit, AFailedBigUnmapStillReducesTheCount) {
    olk::allocator allocator;
    void* p = allocator.malloc_(5000000, nullptr);
    spy::watch watch;
    watch.fail_munmap(1, 1);
    allocator.free_(p);
    EXPECT_EQ(allocator.bigcount, 0u);
    olk::unmap_pages(static_cast<char*>(p) - 16, 5001216);
}

TEST(AllocatorLimit, EveryClassReturnsNullWhenItsHeapCannotBeMapped) {
    for (const size_row& row : read_size_classes()) {
        olk::allocator allocator;
        for (uint32_t i = 0; row.at_start && i < row.first_blocks; ++i)
            allocator.malloc_(row.blksize, nullptr);
        spy::watch watch;
        watch.fail_mmap(1);
        size_t usable = 77;
        EXPECT_EQ(allocator.malloc_(row.blksize, &usable), nullptr) << row.blksize;
        EXPECT_EQ(usable, 77u);
        EXPECT_TRUE(allocator.valid());
        watch.stop_failing();
        EXPECT_NE(allocator.malloc_(row.blksize, nullptr), nullptr) << row.blksize;
    }
}

TEST(AllocatorLimitAtStart, AClassWithoutItsFirstHeapIsLeftOutAndTheNextLargerClassServes) {
    const size_t sizes[] = {16, 32, 64, 96};
    for (size_t left_out = 0; left_out < 3; ++left_out) {
        spy::watch watch;
        watch.fail_mmap(left_out + 1, 1);
        olk::allocator allocator;
        watch.stop_failing();
        EXPECT_EQ(allocator.classcount, 29);
        EXPECT_TRUE(allocator.valid());
        size_t usable = 0;
        EXPECT_NE(allocator.malloc_(sizes[left_out], &usable), nullptr);
        EXPECT_EQ(usable, sizes[left_out + 1]);
    }
}

TEST(AllocatorLimitAtStart, WithoutAnyFirstHeapTheClassOf96BytesServesSmallerRequests) {
    spy::watch watch;
    watch.fail_mmap(1, 3);
    olk::allocator allocator;
    EXPECT_EQ(allocator.classcount, 27);
    size_t usable = 0;
    EXPECT_NE(allocator.malloc_(0, &usable), nullptr);
    EXPECT_EQ(usable, 96u);
}

TEST(AllocatorLimitAtStart, WithoutItsFirstPageTheObjectHeapIsEmptyButTheClassesExist) {
    spy::watch watch;
    watch.fail_mmap(1, 1);
    olk::olk_allocator_ whole;
    EXPECT_EQ(whole.objheap.pages, nullptr);
    EXPECT_EQ(whole.objheap.freecount, 0u);
    EXPECT_EQ(whole.alloc.classcount, 30);
}

TEST(AllocatorLimitAtStart, WithoutRecordsTheTableIsEmptyAndASmallRequestIsABigBlock) {
    const spy::no_more_records full;
    spy::watch watch;
    watch.fail_mmap(1);
    olk::allocator allocator;
    watch.stop_failing();
    EXPECT_EQ(allocator.classcount, 0);
    size_t usable = 0;
    void* p = allocator.malloc_(1, &usable);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(usable, 4080u);
    EXPECT_EQ(allocator.bigcount, 1u);
    allocator.free_(p);
}

//  Makes a fixed series of requests that needs mappings of every kind. Call number `nth` of mmap fails. Returns the
//  number of calls.
size_t run_with_failure_at(size_t nth) {
    spy::watch watch;
    watch.fail_mmap(nth, 1);
    olk::olk_allocator_ whole;
    std::vector<std::pair<char*, size_t>> live;
    for (int round = 0; round < 40; ++round)
        for (size_t size : {size_t{8}, size_t{700}, size_t{60000}, size_t{2000000}, size_t{5000000}}) {
            size_t usable = 0;
            auto* p = static_cast<char*>(whole.alloc.malloc_(size, &usable));
            if (p == nullptr)
                continue;
            EXPECT_GE(usable, size);
            p[0] = p[size - 1] = static_cast<char>(round);
            live.emplace_back(p, size);
        }
    EXPECT_TRUE(whole.alloc.valid());
    EXPECT_GE(live.size() + 1, 200u) << "one failed mapping makes at most one request fail";
    for (const auto& [p, size] : live) {
        EXPECT_EQ(p[0], p[size - 1]);
        whole.alloc.free_(p);
    }
    EXPECT_EQ(whole.alloc.bigcount, 0u);
    EXPECT_TRUE(whole.alloc.valid());
    return watch.count(spy::kind::mmap);
}

TEST(AllocatorLimit, AFailedMmapAtAnyCallMakesAtMostOneRequestFail) {
    const size_t mappings = run_with_failure_at(0);
    ASSERT_GT(mappings, 60u);
    for (size_t nth = 1; nth <= mappings; ++nth) {
        SCOPED_TRACE("failure at mapping " + std::to_string(nth));
        run_with_failure_at(nth);
    }
}

TEST(AllocatorLimit, MunmapMayFailEverywhere) {
    spy::watch watch;
    {
        olk::olk_allocator_ whole;
        std::vector<void*> live;
        for (int i = 0; i < 12; ++i)
            live.push_back(whole.alloc.malloc_(4194304, nullptr));
        live.push_back(whole.alloc.malloc_(5000000, nullptr));
        watch.fail_munmap(1);
        for (void* p : live)
            whole.alloc.free_(p);
        EXPECT_TRUE(whole.alloc.valid());
        EXPECT_EQ(whole.alloc.bigcount, 0u);
    }
    watch.stop_failing();
    for (const spy::call& c : watch.calls()) {
        if (c.what == spy::kind::munmap) {
            EXPECT_TRUE(olk::unmap_pages(const_cast<void*>(c.address), c.value));
        }
    }
}

//  Runs in a child that may map 64 MiB more. Exits with status 0 if all claims hold.
[[noreturn]] void use_up_the_address_space() {
    const auto claim = [](bool holds, const char* what) {
        if (!holds) {
            std::fprintf(stderr, "%s\n", what);
            _exit(1);
        }
    };
    long pages = 0;
    FILE* statm = std::fopen("/proc/self/statm", "r");
    claim(statm != nullptr && std::fscanf(statm, "%ld", &pages) == 1, "cannot read the process's own size");
    const rlim_t limit = static_cast<rlim_t>(pages) * 4096 + (rlim_t{64} << 20);
    const rlimit both{limit, limit};
    claim(setrlimit(RLIMIT_AS, &both) == 0, "setrlimit fails");

    olk::allocator& allocator = *olk::get_olk_allocator();
    void* chain = nullptr;
    size_t given = 0;
    for (size_t size : {size_t{6000000}, size_t{4194304}, size_t{100000}, size_t{3000}, size_t{500}, size_t{20}}) {
        while (void* p = allocator.malloc_(size, nullptr)) {
            olk::store_word(p, chain);
            chain = p;
            ++given;
        }
        claim(allocator.malloc_(size, nullptr) == nullptr, "a null is followed by a block");
    }
    claim(given > 1000, "too little was given to mean anything");
    while (chain != nullptr) {
        void* next = olk::load_word<void*>(chain);
        allocator.free_(chain);
        chain = next;
    }
    claim(allocator.bigcount == 0, "big blocks are left");
    claim(allocator.valid(), "the classes are damaged");
    void* p = allocator.malloc_(6000000, nullptr);
    claim(p != nullptr, "freed memory cannot be allocated again");
    _exit(0);
}

TEST(AllocatorLimitDeathTest, WhenTheAddressSpaceRunsOutRequestsReturnNullAndNothingCrashes) {
    if (under_sanitizer() || under_valgrind())
        GTEST_SKIP() << "sanitizers and valgrind need more address space than the limit allows";
    EXPECT_EXIT(use_up_the_address_space(), testing::ExitedWithCode(0), "");
}

}  // namespace
