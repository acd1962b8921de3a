//  The minimum work of an allocator built like the pooled one: class search, a spin lock to allocate and one to free,
//  the counters of heap and class, the block's header and the release test, with one heap of 16 blocks per class. It
//  never grows, releases or checks.
//
//  Threads: as for the allocator itself.
#ifndef BENCH_MINIMUM_H
#define BENCH_MINIMUM_H

#include <cstddef>

namespace bench {

//  Requires: size is at most 4194304, and fewer than 16 blocks of its class are allocated.
void* minimum_malloc(std::size_t size, std::size_t* outsize);
void minimum_free(void* p);

}  // namespace bench

#endif
