//  A model of one size class. It predicts which heap and which block serve a request, and when a heap is released. A
//  heap is a list of freed blocks, last in first out, and the number of blocks that were never used.
#ifndef FUZZ_HEAP_MODEL_H
#define FUZZ_HEAP_MODEL_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

class class_model {
public:
    //  Place of a block: the number of its heap (never reused), and the number of the block in the heap.
    struct place {
        uint32_t heap;
        uint32_t block;
    };

    class_model(uint64_t blksize, uint32_t first, uint32_t blkperheap)
        : stride_(blksize + 8), first_(first), blkperheap_(blkperheap) {}

    //  Creates the head heap before its first block is requested.
    void prepare() { heaps_.push_back(new_heap(first_)); }

    //  Returns the next block.
    place take() {
        auto serving = std::find_if(heaps_.begin(), heaps_.end(), [](const heap& h) { return h.free_blocks() != 0; });
        if (serving == heaps_.end())
            serving = heaps_.empty() ? heaps_.insert(serving, new_heap(first_))
                                     : heaps_.insert(heaps_.begin() + 1, new_heap(blkperheap_));
        const place taken{serving->number, serving->next()};
        if (serving - heaps_.begin() > 1 && serving->free_blocks() != 0)
            std::rotate(heaps_.begin() + 1, serving, serving + 1);
        return taken;
    }

    void give_back(place given) {
        const auto home =
            std::find_if(heaps_.begin(), heaps_.end(), [&](const heap& h) { return h.number == given.heap; });
        home->returned.push_back(given.block);
        if (heaps_.size() <= 3 || home == heaps_.begin() || !home->wholly_free() || free_blocks() == blkperheap_)
            return;
        heaps_.erase(std::remove_if(heaps_.begin() + 1, heaps_.end(), [](const heap& h) { return h.wholly_free(); }),
                     heaps_.end());
    }

    uint32_t free_blocks() const {
        uint32_t sum = 0;
        for (const heap& h : heaps_)
            sum += h.free_blocks();
        return sum;
    }
    size_t heap_count() const { return heaps_.size(); }
    uint32_t blocks_of(uint32_t number) const { return number == 0 ? first_ : blkperheap_; }
    //  Returns the offset of the block's user address from the start of its heap's mapping.
    uint64_t offset(place where) const { return where.block * stride_ + 8; }
    //  Returns the length of a heap's mapping, with pages of 4 KiB.
    uint64_t mapping(uint32_t number) const { return (stride_ * blocks_of(number) + 4095) & ~uint64_t{4095}; }

private:
    struct heap {
        uint32_t number;
        uint32_t blocks;
        uint32_t never_out;
        std::vector<uint32_t> returned;

        uint32_t free_blocks() const { return never_out + static_cast<uint32_t>(returned.size()); }
        bool wholly_free() const { return free_blocks() == blocks; }
        uint32_t next() {
            if (returned.empty())
                return blocks - never_out--;
            const uint32_t last = returned.back();
            returned.pop_back();
            return last;
        }
    };

    heap new_heap(uint32_t blocks) { return {made_++, blocks, blocks, {}}; }

    uint64_t stride_;
    uint32_t first_;
    uint32_t blkperheap_;
    uint32_t made_ = 0;
    std::vector<heap> heaps_;
};

#endif
