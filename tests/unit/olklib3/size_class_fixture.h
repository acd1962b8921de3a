//  A size class with heaps of four blocks of 16 bytes, and functions to examine its heaps.
#ifndef SIZE_CLASS_FIXTURE_H
#define SIZE_CLASS_FIXTURE_H

#include "mapping_spy.h"
#include "olk_blk_alloctor.h"

#include <gtest/gtest.h>

using size_class = olk::blk_alloctor<olk::spinlock>;
using trace = std::vector<std::string>;

constexpr size_t page = 4096;

inline uint64_t free_records() {
    return olk::get_olk_alloctor_self()->objheap.freecount;
}

inline std::vector<olk::blk_heap*> heaps_of(const size_class& which) {
    std::vector<olk::blk_heap*> list;
    for (olk::blk_heap* heap = which.heaps; heap != nullptr; heap = heap->next)
        list.push_back(heap);
    return list;
}

inline void free_in(size_class& which, void* p) {
    which.free_(olk::blk_heap::of(p), p);
}

class FourBlockClass : public testing::Test {
protected:
    static constexpr uint32_t per_heap = 4;
    size_class cls{16, per_heap};

    std::vector<void*> take(size_t count) {
        std::vector<void*> taken;
        for (size_t i = 0; i < count; ++i)
            taken.push_back(cls.malloc_(nullptr));
        return taken;
    }
    void give_back(const std::vector<void*>& blocks) {
        for (void* p : blocks)
            free_in(cls, p);
    }
    std::vector<olk::blk_heap*> heaps() const { return heaps_of(cls); }
};

//  Several full heaps, numbered from 0 in the order of creation. at[i] contains the blocks of heap[i]. The list has
//  heap[0] first, then the others from the newest to heap[1].
template <size_t COUNT>
class FullHeaps : public FourBlockClass {
protected:
    void SetUp() override {
        for (size_t i = 0; i < COUNT; ++i) {
            at[i] = take(per_heap);
            heap[i] = olk::blk_heap::of(at[i][0]);
        }
    }
    std::vector<void*> at[COUNT];
    olk::blk_heap* heap[COUNT];
};

#endif
