//  Compares one size class with its model. An input is the block size, the number of blocks of a heap, whether the
//  first heap exists at the start, and a list of operations. Heaps are small, so that they are created and released
//  often.
#include "fuzz_input.h"
#include "heap_model.h"
#include "live_blocks.h"
#include "olk_allocator.h"

namespace {

constexpr size_t most_blocks = 600;
constexpr size_t most_steps = 100;

using size_class = olk::blk_alloctor<olk::spinlock>;

//  Returns the number of blocks of a first heap: `blkperheap` if it is at most 16, or if that many blocks fit into
//  32 KiB; otherwise as many as fit into 32 KiB, but at least 16.
uint32_t first_blocks(uint64_t blksize, uint32_t blkperheap) {
    return blkperheap > 16 && blksize * blkperheap > 32768
               ? std::max<uint32_t>(16, static_cast<uint32_t>(32768 / blksize))
               : blkperheap;
}

class run {
public:
    run(fuzz_input input, uint32_t size, uint32_t blkperheap, bool prepared)
        : input_(std::move(input)), subject_(size, blkperheap), blksize_((size + 7) & ~7U),
          model_(blksize_, first_blocks(blksize_, blkperheap), blkperheap) {
        if (!prepared)
            return;
        model_.prepare();
        require(subject_.add_first_heap_(size_class::first_heap_count(subject_.blksize, blkperheap)),
                "memory is available");
    }

    void all() {
        require(subject_.blksize == blksize_, "a size is rounded up to 8");
        for (size_t steps = 0; !input_.empty() && steps < most_steps && blocks_.size() < most_blocks; ++steps) {
            step(input_.number<uint8_t>());
            require(subject_.valid(), "the structures are valid");
        }
        while (!blocks_.empty())
            give_back(blocks_.chosen(input_.number<uint8_t>()));
        require(subject_.valid() && subject_.freecount == model_.free_blocks(), "every block is free");
    }

private:
    //  Takes several blocks, or frees several: from the front, from the back, or every second block.
    void step(unsigned what) {
        const unsigned count = what / 8 + 1;
        const size_t start = what % 8 == 7 ? input_.number<uint8_t>() : 0;
        for (unsigned i = 0; i < count; ++i) {
            if (what % 8 < 4)
                take();
            else if (!blocks_.empty())
                give_back(what % 8 == 5 ? blocks_.first() : what % 8 == 6 ? blocks_.last() : blocks_.chosen(start + i));
        }
    }

    void take() {
        size_t usable = 0;
        auto* const p = static_cast<char*>(subject_.malloc_(&usable));
        require(p != nullptr && usable == blksize_, "a block has the class's size");
        const class_model::place place = model_.take();
        const auto [base, fresh] = bases_.emplace(place.heap, p - model_.offset(place));
        require(!fresh || place.block == 0, "the first block of a heap is allocated first");
        require(base->second + model_.offset(place) == p, "the block is the expected one");
        blocks_.add(p, usable, olk::blk_header_size, place);
        check(olk::blk_heap::of(p), place);
    }

    void check(const olk::blk_heap* heap, class_model::place place) {
        require(heap->base == bases_[place.heap] && heap->blkcount == model_.blocks_of(place.heap) &&
                    heap->maplen == model_.mapping(place.heap) && heap->owner == &subject_,
                "the header of the block has the address of its heap");
        check_counts();
    }
    void check_counts() {
        require(subject_.freecount == model_.free_blocks(), "the free blocks agree");
        require(static_cast<size_t>(subject_.heapcount) == model_.heap_count(), "the heaps agree");
    }

    void give_back(live_blocks<class_model::place>::iterator block) {
        char* const p = block->first;
        const class_model::place place = blocks_.remove(block);
        subject_.free_(olk::blk_heap::of(p), p);
        model_.give_back(place);
        check_counts();
    }

    fuzz_input input_;
    size_class subject_;
    uint64_t blksize_;
    class_model model_;
    std::map<uint32_t, char*> bases_;
    live_blocks<class_model::place> blocks_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto& records = olk::get_olk_alloctor_self()->objheap;
    const uint64_t before = records.freecount;
    fuzz_input input(data, size);
    const uint32_t blksize = input.number<uint16_t>() % 5000 + 1U;
    const auto shape = input.number<uint8_t>();
    run(input, blksize, shape / 2 % 40 + 1U, shape % 2 != 0).all();
    require(records.freecount == before && records.valid(), "every record was freed");
    return 0;
}
