//  Three subjects: the process-wide object heap that memheap_ uses; an object heap that is compared with a simple
//  model, under random operations; and an object heap that eight threads use.
#include "mapping_spy.h"
#include "olk_objalloctor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <random>
#include <thread>
#include <type_traits>

namespace {

using object_heap = olk::objalloctor_<olk::spinlock>;

object_heap& process_heap() {
    return olk::get_olk_alloctor_self()->objheap;
}

template <size_t SIZE>
struct object_of : olk::memheap_ {
    char bytes[SIZE];
};

TEST(MemHeap, TheProcessWideHeapServes56BytesFrom512KiBPages) {
    EXPECT_EQ(process_heap().heapsize, 524288u);
    EXPECT_EQ(process_heap().objsize, 56u);
    ASSERT_NE(process_heap().pages, nullptr);
    EXPECT_EQ(process_heap().pages->maplen, 524288u);
}

TEST(MemHeap, NewAndDeleteUseTheProcessWideHeap) {
    const uint64_t before = process_heap().freecount;
    auto* object = new object_of<56>;
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(process_heap().freecount, before - 1);
    EXPECT_TRUE(process_heap().valid());
    delete object;
    EXPECT_EQ(process_heap().freecount, before);
}

TEST(MemHeap, DeleteReturnsNothing) {
    EXPECT_TRUE(std::is_void_v<decltype(olk::memheap_::operator delete(nullptr))>);
}

TEST(MemHeap, AnObjectAbove56BytesReturnsNull) {
    EXPECT_EQ(new object_of<57>, nullptr);
}

TEST(MemHeap, WithoutMemoryNewReturnsNull) {
    const spy::no_more_records full;
    spy::watch watch;
    watch.fail_mmap(1);
    EXPECT_EQ(new object_of<8>, nullptr);
}

TEST(MemHeap, DeleteOfAForeignAddressIsIgnored) {
    const uint64_t before = process_heap().freecount;
    int foreign = 0;
    //  Called through a pointer, because the compiler rejects a direct delete of an address that it knows to be
    //  invalid.
    void (*volatile free_object)(void*) = &olk::memheap_::operator delete;
    free_object(&foreign);
    free_object(nullptr);
    EXPECT_EQ(process_heap().freecount, before);
}

//  A model of the order of the pages and of their counts. It uses standard containers.
class page_model {
public:
    explicit page_model(uint64_t slots) : slots_(slots), order_{{0, slots}} {}

    //  Returns the number of the page that provides the slot.
    int take() {
        size_t i = 0;
        while (i < order_.size() && order_[i].free == 0)
            ++i;
        if (i == order_.size()) {
            order_.insert(order_.begin(), {next_id_++, slots_});
            i = 0;
        }
        entry served = order_[i];
        --served.free;
        order_[i] = served;
        if (i != 0 && served.free != 0) {
            order_.erase(order_.begin() + static_cast<ptrdiff_t>(i));
            order_.insert(order_.begin(), served);
        }
        return served.id;
    }

    void give_back(int id) {
        size_t i = 0;
        while (order_[i].id != id)
            ++i;
        if (++order_[i].free == slots_ && i != 0)
            order_.erase(order_.begin() + static_cast<ptrdiff_t>(i));
    }

    std::vector<uint64_t> free_slots() const {
        std::vector<uint64_t> counts;
        for (const entry& e : order_)
            counts.push_back(e.free);
        return counts;
    }

private:
    struct entry {
        int id;
        uint64_t free;
    };
    uint64_t slots_;
    int next_id_ = 1;
    std::vector<entry> order_;
};

std::vector<uint64_t> free_slots(const object_heap& heap) {
    std::vector<uint64_t> counts;
    for (olk::obj_page* p = heap.pages; p != nullptr; p = p->next)
        counts.push_back(p->freecount);
    return counts;
}

TEST(ObjAlloctorModel, AgreesWithTheModelOver20000RandomOperations) {
    constexpr size_t objsize = 200;
    object_heap heap(4096, objsize);
    page_model model((4096 - 56) / 208);
    struct slot {
        void* p;
        int page;
        unsigned char fill;
    };
    std::vector<slot> live;
    std::mt19937 random(20250411);
    size_t most = 0;
    for (int step = 0; step < 20000; ++step) {
        //  The number of slots repeatedly rises and falls in 1000 steps each, so that pages are mapped and unmapped
        //  often.
        const bool rising = step / 1000 % 2 == 0;
        if (live.empty() || random() % 8 < (rising ? 5u : 2u)) {
            const slot s{heap.malloc_(random() % (objsize + 1)), model.take(), static_cast<unsigned char>(random())};
            ASSERT_NE(s.p, nullptr);
            std::memset(s.p, s.fill, objsize);
            live.push_back(s);
        } else {
            std::swap(live[random() % live.size()], live.back());
            const slot s = live.back();
            live.pop_back();
            ASSERT_TRUE(std::vector<unsigned char>(objsize, s.fill) ==
                        std::vector<unsigned char>(static_cast<unsigned char*>(s.p),
                                                   static_cast<unsigned char*>(s.p) + objsize));
            ASSERT_TRUE(heap.free_(s.p));
            model.give_back(s.page);
        }
        ASSERT_EQ(free_slots(heap), model.free_slots()) << "after step " << step;
        ASSERT_TRUE(heap.valid());
        most = std::max(most, free_slots(heap).size());
    }
    EXPECT_GT(most, 5u) << "the run used too few pages for a meaningful test";
}

TEST(ObjAlloctorThreads, EightThreadsKeepTheirOwnObjects) {
    object_heap heap(4096, 56);
    std::vector<std::thread> crowd;
    std::atomic<int> damaged{0};
    for (unsigned t = 0; t < 8; ++t)
        crowd.emplace_back([&heap, &damaged, t] {
            std::mt19937 random(t);
            std::vector<void*> mine;
            for (int step = 0; step < 2000; ++step) {
                if (mine.size() < 100 && random() % 2 == 0) {
                    mine.push_back(heap.malloc_(56));
                    std::memset(mine.back(), static_cast<int>(t), 56);
                } else if (!mine.empty()) {
                    const auto* bytes = static_cast<unsigned char*>(mine.back());
                    damaged += static_cast<int>(std::count(bytes, bytes + 56, t) != 56);
                    damaged += static_cast<int>(!heap.free_(mine.back()));
                    mine.pop_back();
                }
            }
            for (void* p : mine)
                heap.free_(p);
        });
    for (std::thread& t : crowd)
        t.join();
    EXPECT_EQ(damaged, 0);
    EXPECT_TRUE(heap.valid());
    EXPECT_EQ(free_slots(heap).size(), 1u);
}

}  // namespace
