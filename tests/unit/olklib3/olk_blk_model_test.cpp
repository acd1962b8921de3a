//  Compares a size class with a model of its heaps that uses standard containers, under random operations.
#include "size_class_fixture.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace {

class heap_model {
public:
    heap_model(uint32_t first, uint32_t per_heap) : first_(first), per_heap_(per_heap) {}

    //  Returns the number of the heap that provides the block.
    int take() {
        size_t i = 0;
        while (i < list_.size() && list_[i].free == 0)
            ++i;
        if (i == list_.size())
            i = grow();
        entry served = list_[i];
        --served.free;
        list_[i] = served;
        if (i > 1 && served.free != 0) {
            list_.erase(list_.begin() + static_cast<ptrdiff_t>(i));
            list_.insert(list_.begin() + 1, served);
        }
        return served.id;
    }

    void give_back(int id) {
        size_t i = 0;
        while (list_[i].id != id)
            ++i;
        ++list_[i].free;
        if (list_.size() > 3 && i != 0 && list_[i].free == list_[i].blocks && free_blocks() != per_heap_)
            list_.erase(
                std::remove_if(list_.begin() + 1, list_.end(), [](const entry& e) { return e.free == e.blocks; }),
                list_.end());
    }

    uint32_t free_blocks() const {
        uint32_t sum = 0;
        for (const entry& e : list_)
            sum += e.free;
        return sum;
    }

    std::vector<std::pair<uint32_t, uint32_t>> counts() const {
        std::vector<std::pair<uint32_t, uint32_t>> found;
        for (const entry& e : list_)
            found.emplace_back(e.free, e.blocks);
        return found;
    }

private:
    struct entry {
        int id;
        uint32_t free;
        uint32_t blocks;
    };

    size_t grow() {
        if (list_.empty()) {
            list_.push_back({next_id_++, first_, first_});
            return 0;
        }
        list_.insert(list_.begin() + 1, {next_id_++, per_heap_, per_heap_});
        return 1;
    }

    uint32_t first_;
    uint32_t per_heap_;
    int next_id_ = 0;
    std::vector<entry> list_;
};

std::vector<std::pair<uint32_t, uint32_t>> counts(const size_class& cls) {
    std::vector<std::pair<uint32_t, uint32_t>> found;
    for (const olk::blk_heap* heap : heaps_of(cls))
        found.emplace_back(heap->freecount, heap->blkcount);
    return found;
}

struct block {
    void* p;
    int heap;
    unsigned char fill;
};

//  The number of blocks repeatedly rises and falls, so that heaps are created and released many times.
void run_beside_the_model(uint32_t blksize, uint32_t first, uint32_t per_heap, unsigned seed) {
    size_class cls(blksize, per_heap);
    heap_model model(first, per_heap);
    std::vector<block> live;
    std::mt19937 random(seed);
    size_t most = 0;
    size_t released = 0;
    for (int step = 0; step < 20000; ++step) {
        const bool rising = step / 1000 % 2 == 0;
        if (live.empty() || random() % 8 < (rising ? 5u : 2u)) {
            const block b{cls.malloc_(nullptr), model.take(), static_cast<unsigned char>(random())};
            ASSERT_NE(b.p, nullptr);
            std::memset(b.p, b.fill, blksize);
            live.push_back(b);
        } else {
            std::swap(live[random() % live.size()], live.back());
            const block b = live.back();
            live.pop_back();
            const std::vector<unsigned char> expected(blksize, b.fill);
            ASSERT_EQ(std::memcmp(b.p, expected.data(), blksize), 0);
            const size_t before = counts(cls).size();
            free_in(cls, b.p);
            model.give_back(b.heap);
            released += before - counts(cls).size();
        }
        ASSERT_EQ(counts(cls), model.counts()) << "after step " << step;
        ASSERT_EQ(cls.freecount, model.free_blocks());
        ASSERT_EQ(static_cast<size_t>(cls.heapcount), counts(cls).size());
        ASSERT_TRUE(cls.valid());
        most = std::max(most, counts(cls).size());
    }
    EXPECT_GT(most, 5u) << "the run used too few heaps for a meaningful test";
    EXPECT_GT(released, 20u) << "the run released too few heaps for a meaningful test";
}

TEST(BlkModel, AgreesWithTheModelWithEqualHeaps) {
    run_beside_the_model(24, 10, 10, 20250411);
}

TEST(BlkModel, AgreesWithTheModelWithASmallHead) {
    run_beside_the_model(2048, 16, 20, 23213);
}

TEST(BlkModel, AgreesWithTheModelWithHeapsOfTwoBlocks) {
    run_beside_the_model(4096, 2, 2, 7);
}

}  // namespace
