//  The allocator under random operations: each allocated block keeps its contents, and no two blocks overlap.
#include "mapping_spy.h"
#include "size_classes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>

namespace {

//  Of a larger block, only this many bytes at its start and at its end are filled. This keeps the test fast.
constexpr size_t filled_ends = 512;

struct block {
    size_t size;
    size_t usable;
    unsigned char fill;
};

class random_user {
public:
    explicit random_user(unsigned seed) : random_(seed) {}
    ~random_user() {
        for (auto which = live_.begin(); which != live_.end(); ++which)
            give_back(which);
    }

    void step(bool rising) {
        if (live_.empty() || random_() % 8 < (rising ? 5u : 3u)) {
            take();
        } else {
            const auto which = some_block();
            give_back(which);
            live_.erase(which);
        }
    }

    bool valid() { return allocator_.valid() && olk::get_olk_alloctor_self()->objheap.valid(); }
    uint32_t big_blocks_counted() const { return allocator_.bigcount; }
    uint32_t big_blocks_alive() const {
        return static_cast<uint32_t>(
            std::count_if(live_.begin(), live_.end(), [](const auto& entry) { return entry.second.size > 4194304; }));
    }

private:
    using live_blocks = std::map<char*, block>;

    //  Returns a random size. Every power of two is equally likely; the largest sizes are big blocks.
    size_t some_size() {
        const size_t magnitude = size_t{1} << (random_() % 23);
        return std::min<size_t>(magnitude + random_() % (magnitude + 1), 6000000);
    }

    live_blocks::iterator some_block() {
        return std::next(live_.begin(), static_cast<ptrdiff_t>(random_() % live_.size()));
    }

    void take() {
        block taken{some_size(), 0, static_cast<unsigned char>(random_())};
        auto* p = static_cast<char*>(allocator_.malloc_(taken.size, &taken.usable));
        ASSERT_NE(p, nullptr);
        ASSERT_GE(taken.usable, taken.size);
        ASSERT_EQ(taken.usable, olk::allocator::usable_size(p));
        ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 0u);
        const auto [place, fresh] = live_.emplace(p, taken);
        ASSERT_TRUE(fresh);
        if (place != live_.begin()) {
            ASSERT_LE(std::prev(place)->first + std::prev(place)->second.usable, p - olk::blk_header_size);
        }
        if (std::next(place) != live_.end()) {
            ASSERT_LE(p + taken.usable, std::next(place)->first - olk::blk_header_size);
        }
        const size_t filled = std::min(taken.usable, filled_ends);
        std::memset(p, taken.fill, filled);
        std::memset(p + taken.usable - filled, taken.fill, filled);
    }

    void give_back(live_blocks::iterator which) {
        const auto& [p, taken] = *which;
        const size_t checked = std::min(taken.usable, filled_ends);
        const std::vector<unsigned char> expected(checked, taken.fill);
        ASSERT_EQ(std::memcmp(p, expected.data(), checked), 0);
        ASSERT_EQ(std::memcmp(p + taken.usable - checked, expected.data(), checked), 0);
        allocator_.free_(p);
    }

    olk::allocator allocator_;
    live_blocks live_;
    std::mt19937 random_;
};

TEST(AllocatorModel, BlocksKeepTheirContentsAndNeverOverlapOver30000RandomOperations) {
    random_user user(20250411);
    for (int step = 0; step < 30000 && !testing::Test::HasFatalFailure(); ++step) {
        user.step(step / 3000 % 2 == 0);
        if (step % 250 == 0) {
            ASSERT_TRUE(user.valid()) << "after step " << step;
            ASSERT_EQ(user.big_blocks_counted(), user.big_blocks_alive());
        }
    }
    EXPECT_TRUE(user.valid());
}

TEST(AllocatorModel, MemoryIsUnmappedWhenFewerBlocksAreInUse) {
    olk::allocator allocator;
    spy::watch watch;
    std::vector<void*> blocks;
    for (int i = 0; i < 12 * 42; ++i)
        blocks.push_back(allocator.malloc_(49152, nullptr));
    const size_t most = watch.count(spy::kind::mmap);
    for (void* p : blocks)
        allocator.free_(p);
    EXPECT_GE(most, 12u);
    EXPECT_GE(watch.count(spy::kind::munmap), most - 4);
    for (size_t length : watch.lengths(spy::kind::munmap))
        EXPECT_EQ(length, 2068480u);
}

}  // namespace
