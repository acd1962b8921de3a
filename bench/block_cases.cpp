//  Cases that allocate and free blocks: in pairs, in batches, at random, on two threads, above the largest class.
#include "allocators.h"
#include "cases.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sys/mman.h>

namespace bench {

namespace {

constexpr std::array<std::size_t, 30> class_sizes = {
    16,   32,    64,    96,    128,   256,   384,   512,   640,    800,    1024,   1424,   2048,    3072,    5120,
    8192, 12288, 16384, 20480, 24576, 32768, 49152, 65536, 131072, 262144, 409600, 655360, 1048576, 2097152, 4194304};
constexpr std::size_t pairs_at_once = 1000;
constexpr std::size_t blocks_in_batch = 1000;
constexpr std::size_t batch_sizes[] = {64, 256, 1024, 4096, 16384, 65536};
constexpr std::size_t churns_at_once = 20'000;  // hides the cost of allocating the first live blocks

template <class ALLOCATOR>
void pairs(std::size_t size, std::size_t times) {
    for (; times-- > 0;) {
        void* p = ALLOCATOR::allocate(size);
        keep(p);
        ALLOCATOR::release(p);
    }
}

template <class ALLOCATOR>
void add_pairs() {
    for (const std::size_t size : class_sizes)
        add("pair/" + std::string(ALLOCATOR::name) + '/' + std::to_string(size), pairs_at_once,
            [size](std::size_t times) { pairs<ALLOCATOR>(size, times); });
}

enum class Order { lifo, fifo, random };

std::vector<std::size_t> release_order(Order order) {
    std::vector<std::size_t> places(blocks_in_batch);
    std::iota(places.begin(), places.end(), std::size_t{0});
    if (order == Order::lifo)
        std::reverse(places.begin(), places.end());
    if (order == Order::random)
        std::shuffle(places.begin(), places.end(), std::minstd_rand(1));
    return places;
}

template <class ALLOCATOR>
void batches(std::size_t size, const std::vector<std::size_t>& order, std::size_t times) {
    static std::array<void*, blocks_in_batch> blocks;
    for (; times-- > 0;) {
        for (void*& block : blocks) {
            block = ALLOCATOR::allocate(size);
            *static_cast<char*>(block) = 1;
        }
        for (const std::size_t place : order)
            ALLOCATOR::release(blocks[place]);
    }
}

template <class ALLOCATOR>
void add_batches() {
    constexpr std::pair<Order, const char*> orders[] = {
        {Order::lifo, "lifo"}, {Order::fifo, "fifo"}, {Order::random, "random"}};
    for (const auto& [order, order_name] : orders)
        for (const std::size_t size : batch_sizes)
            add("batch/" + std::string(ALLOCATOR::name) + '/' + order_name + '/' + std::to_string(size), 1,
                [size, places = release_order(order)](std::size_t times) { batches<ALLOCATOR>(size, places, times); });
}

//  Repeatedly frees one of 10,000 live blocks and allocates another. Sizes are random, from 16 to 65,536 bytes.
template <class ALLOCATOR>
void churn(std::size_t times) {
    constexpr std::size_t live = 10'000;
    static std::minstd_rand random(1);
    static std::uniform_int_distribution<std::size_t> any_size(16, 65536);
    static std::vector<void*> blocks;
    while (blocks.size() < live)
        blocks.push_back(ALLOCATOR::allocate(any_size(random)));
    for (; times-- > 0;) {
        void*& block = blocks[random() % live];
        ALLOCATOR::release(block);
        block = ALLOCATOR::allocate(any_size(random));
        *static_cast<char*>(block) = 1;
    }
}

#ifndef BENCH_PLAIN
//  Locks and unlocks a free spin lock twice, as a pair of an allocation and a release does.
void bare_locks(std::size_t times) {
    static pthread_spinlock_t lock = [] {
        pthread_spinlock_t made;
        pthread_spin_init(&made, PTHREAD_PROCESS_PRIVATE);
        return made;
    }();
    for (times *= 2; times-- > 0;) {
        pthread_spin_lock(&lock);
        pthread_spin_unlock(&lock);
    }
}

//  Half of the pairs are in one class, half in another. Either one thread makes both halves, or two threads make one
//  half each.
void one_thread(std::size_t first, std::size_t second, std::size_t times) {
    pairs<pooled>(first, times / 2);
    pairs<pooled>(second, times / 2);
}

void two_threads(std::size_t first, std::size_t second, std::size_t times) {
    std::thread other([=] { pairs<pooled>(second, times / 2); });
    pairs<pooled>(first, times / 2);
    other.join();
}

void add_threads() {
    constexpr std::size_t many = 1'000'000;  // hides the cost of starting a thread
    struct two_classes {
        std::size_t first;
        std::size_t second;
    };
    for (const two_classes both : {two_classes{64, 1024}, two_classes{96, 128}}) {
        const std::string classes = std::to_string(both.first) + "_and_" + std::to_string(both.second);
        add("threads/one/" + classes, many, [=](std::size_t times) { one_thread(both.first, both.second, times); });
        add("threads/two/" + classes, many, [=](std::size_t times) { two_threads(both.first, both.second, times); });
    }
}

void touch_pages(void* p, std::size_t size) {
    constexpr std::size_t page = 4096;
    for (std::size_t i = 0; i < size; i += page)
        static_cast<volatile char*>(p)[i] = 1;
}

constexpr std::size_t big_sizes[] = {4194305, 16777216};

void add_big() {
    for (const std::size_t size : big_sizes) {
        add("big/olk/" + std::to_string(size), 1, [size](std::size_t times) {
            for (; times-- > 0;) {
                void* p = pooled::allocate(size);
                touch_pages(p, size);
                pooled::release(p);
            }
        });
        add("big/mmap/" + std::to_string(size), 1, [size](std::size_t times) {
            for (; times-- > 0;) {
                void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
                touch_pages(p, size);
                munmap(p, size);
            }
        });
    }
}
#endif

template <class ALLOCATOR>
void add_all() {
    add_pairs<ALLOCATOR>();
    add_batches<ALLOCATOR>();
    add("churn/" + std::string(ALLOCATOR::name), churns_at_once, churn<ALLOCATOR>);
}

const bool added = [] {
#ifdef BENCH_PLAIN
    add_all<c_library>();
#else
    add_all<pooled>();
    add_pairs<minimum>();
    add("pair/two_locks/64", pairs_at_once, bare_locks);
    add_threads();
    add_big();
#endif
    return true;
}();

}  // namespace

}  // namespace bench
