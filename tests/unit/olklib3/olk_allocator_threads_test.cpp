//  Eight threads that use one allocator. All but one of these tests are also run with the thread sanitizer.
#include "mapping_spy.h"
#include "surroundings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <random>
#include <thread>

#include <malloc.h>

namespace {

constexpr unsigned threads = 8;
constexpr size_t checked_bytes = 256;

struct parcel {
    unsigned char* p;
    size_t size;
    unsigned char fill;

    size_t checked() const { return std::min(size, checked_bytes); }
};

//  Passes blocks from thread to thread; the receiving thread frees them.
class exchange {
public:
    void put(parcel left) {
        const std::lock_guard<std::mutex> guard(mutex_);
        waiting_.push_back(left);
    }
    bool get(parcel& found) {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (waiting_.empty())
            return false;
        found = waiting_.front();
        waiting_.pop_front();
        return true;
    }

private:
    std::mutex mutex_;
    std::deque<parcel> waiting_;
};

size_t some_size(std::mt19937& random) {
    if (random() % 50 == 0)
        return 4194305 + random() % 100000;
    return random() % (size_t{16} << (random() % 14)) + 1;
}

bool intact(const parcel& found) {
    return std::count(found.p, found.p + found.checked(), found.fill) == static_cast<ptrdiff_t>(found.checked());
}

//  Runs the given number of rounds. Each round allocates one block and puts it into the exchange, from which any thread
//  may take it. For 32 rounds no block is taken; then, for 32 rounds, up to two blocks per round are taken and freed.
//  So the load varies. Returns the number of damaged blocks, or -1 if memory is exhausted.
int work(olk::allocator& allocator, exchange& between, unsigned seed, int rounds) {
    std::mt19937 random(seed);
    int damaged = 0;
    for (int round = 0; round < rounds; ++round) {
        parcel mine{nullptr, some_size(random), static_cast<unsigned char>(random())};
        mine.p = static_cast<unsigned char*>(allocator.malloc_(mine.size, nullptr));
        if (mine.p == nullptr)
            return -1;
        std::memset(mine.p, mine.fill, mine.checked());
        between.put(mine);
        parcel found;
        for (int freed = 0; round % 64 >= 32 && freed < 2 && between.get(found); ++freed) {
            damaged += static_cast<int>(!intact(found));
            allocator.free_(found.p);
        }
    }
    return damaged;
}

void run_eight_threads(olk::allocator& allocator, int rounds) {
    exchange between;
    std::atomic<int> damaged{0};
    std::vector<std::thread> crowd;
    for (unsigned t = 0; t < threads; ++t)
        crowd.emplace_back([&, t] { damaged += work(allocator, between, 100 + t, rounds); });
    for (std::thread& t : crowd)
        t.join();
    EXPECT_EQ(damaged, 0);
    EXPECT_TRUE(allocator.valid());
    parcel left;
    while (between.get(left)) {
        EXPECT_TRUE(intact(left));
        allocator.free_(left.p);
    }
    EXPECT_EQ(allocator.bigcount, 0u);
    EXPECT_TRUE(allocator.valid());
}

TEST(AllocatorThreads, BlocksPassedFromThreadToThreadKeepTheirContents) {
    olk::allocator allocator;
    run_eight_threads(allocator, 2000);
}

TEST(AllocatorThreads, NoLockIsTakenInsideTheObjectHeapsLock) {
    const size_t before = spy::lock_order_violations();
    olk::allocator allocator;
    run_eight_threads(allocator, 500);
    EXPECT_EQ(spy::lock_order_violations(), before);
}

TEST(AllocatorThreads, ALockInsideTheObjectHeapsLockIsDetected) {
    const size_t before = spy::lock_order_violations();
    olk::scoped_lock_<olk::spinlock> outer(&olk::get_olk_alloctor_self()->objheap.lock);
    olk::spinlock other;
    olk::scoped_lock_<olk::spinlock> inner(&other);
    EXPECT_EQ(spy::lock_order_violations(), before + 1);
}

TEST(AllocatorThreads, HeapsAreCreatedAndReleasedByAllThreads) {
    olk::allocator allocator;
    std::vector<std::thread> crowd;
    for (unsigned t = 0; t < threads; ++t)
        crowd.emplace_back([&allocator] {
            for (int round = 0; round < 20; ++round) {
                void* blocks[8];
                for (void*& p : blocks)
                    p = allocator.malloc_(2097152, nullptr);
                for (void* p : blocks)
                    allocator.free_(p);
            }
        });
    for (std::thread& t : crowd)
        t.join();
    EXPECT_TRUE(allocator.valid());
    const auto* cls = allocator.classes[28];
    EXPECT_EQ(cls->freecount, 2u * static_cast<uint32_t>(cls->heapcount));
    EXPECT_LE(cls->heapcount, 4);
}

TEST(GlibcTuning, EightThreadsShareTheCLibrarysOneArena) {
    if (under_sanitizer() || under_valgrind())
        GTEST_SKIP() << "the C library's allocator is replaced";
    std::vector<std::thread> crowd;
    for (unsigned t = 0; t < threads; ++t)
        crowd.emplace_back([] {
            void* volatile p = std::malloc(1000);
            std::free(p);
        });
    for (std::thread& t : crowd)
        t.join();
    char* text = nullptr;
    size_t length = 0;
    FILE* file = open_memstream(&text, &length);
    ASSERT_EQ(malloc_info(0, file), 0);
    std::fclose(file);
    const std::string report(text, length);
    std::free(text);
    EXPECT_NE(report.find("<heap nr=\"0\">"), std::string::npos);
    EXPECT_EQ(report.find("<heap nr=\"1\">"), std::string::npos);
}

TEST(AllocatorThreads, BigBlocksAreCountedCorrectlyByAllThreads) {
    olk::allocator allocator;
    std::vector<std::thread> crowd;
    for (unsigned t = 0; t < threads; ++t)
        crowd.emplace_back([&allocator] {
            for (int round = 0; round < 200; ++round) {
                void* freed = allocator.malloc_(5000000, nullptr);
                allocator.free_(freed);
            }
        });
    for (std::thread& t : crowd)
        t.join();
    EXPECT_EQ(allocator.bigcount, 0u);
}

}  // namespace
