//  The least that a pooled allocator of this kind can cost: its class search, one spin lock each way, the counters of heap
//  and class, the block's header and the release test, for one heap of 16 blocks per class and nothing else. It never
//  grows, releases or checks.
//
//  Threads: as for the allocator itself.
#ifndef BENCH_MINIMUM_H
#define BENCH_MINIMUM_H

#include <cstddef>

namespace bench {

//  Requires: size is at most 4194304, and fewer than 16 blocks of its class are taken.
void* minimum_malloc(std::size_t size, std::size_t* outsize);
void minimum_free(void* p);

}  // namespace bench

#endif
