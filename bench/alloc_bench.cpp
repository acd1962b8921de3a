//  malloc_ and free_, one pair and many blocks at once, beside the C library's and beside the lock alone: a pair takes
//  and gives its class's spin lock twice, which is the floor for this design.
#include "olk_allocator.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cstdlib>

#include <pthread.h>

namespace {

constexpr size_t batch = 1000;

struct pooled {
    static void* take(size_t size) { return olk::get_olk_allocator()->malloc_(size, nullptr); }
    static void give(void* p) { olk::get_olk_allocator()->free_(p); }
};

struct c_library {
    static void* take(size_t size) { return std::malloc(size); }
    static void give(void* p) { std::free(p); }
};

template <class ALLOCATOR>
void pair(benchmark::State& state) {
    const auto size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void* p = ALLOCATOR::take(size);
        benchmark::DoNotOptimize(p);
        ALLOCATOR::give(p);
    }
}

//  Takes a thousand blocks, then gives them back in the order they were taken. The time is that of one pair.
template <class ALLOCATOR>
void many(benchmark::State& state) {
    const auto size = static_cast<size_t>(state.range(0));
    static std::array<void*, batch> blocks;
    while (state.KeepRunningBatch(batch)) {
        for (void*& block : blocks)
            benchmark::DoNotOptimize(block = ALLOCATOR::take(size));
        for (void* block : blocks)
            ALLOCATOR::give(block);
    }
}

//  Two takings and givings of an uncontended spin lock.
void bare_lock(benchmark::State& state) {
    pthread_spinlock_t lock;
    pthread_spin_init(&lock, PTHREAD_PROCESS_PRIVATE);
    for (auto _ : state) {
        for (int i = 0; i < 2; ++i) {
            pthread_spin_lock(&lock);
            benchmark::ClobberMemory();
            pthread_spin_unlock(&lock);
        }
    }
    pthread_spin_destroy(&lock);
}

//  Blocks of the first class, of one that is not a power of two, of one page, and the last ones that glibc keeps.
void sizes(benchmark::internal::Benchmark* bench) {
    for (int64_t size : {16, 128, 800, 4096, 65536, 409600})
        bench->Arg(size);
}

BENCHMARK(pair<pooled>)->Name("malloc_free/olk")->Apply(sizes);
BENCHMARK(pair<c_library>)->Name("malloc_free/glibc")->Apply(sizes);
BENCHMARK(bare_lock)->Name("malloc_free/two_lock_pairs")->Apply(sizes);
BENCHMARK(many<pooled>)->Name("malloc_free_1000/olk")->Arg(16)->Arg(128)->Arg(800);
BENCHMARK(many<c_library>)->Name("malloc_free_1000/glibc")->Arg(16)->Arg(128)->Arg(800);
BENCHMARK(pair<pooled>)->Name("malloc_free_2_threads/olk")->Arg(128)->Threads(2)->UseRealTime();
BENCHMARK(pair<c_library>)->Name("malloc_free_2_threads/glibc")->Arg(128)->Threads(2)->UseRealTime();

}  // namespace
