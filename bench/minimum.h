//  The minimum work of an allocator that is built like the pooled allocator: class search, a spin lock to allocate and
//  one to free, the counters of heap and class, the block's header and the release test. Each class has one heap of 16
//  blocks. The allocator never grows, never releases memory and makes no checks.
//
//  Threads: the same as for the pooled allocator.
#ifndef BENCH_MINIMUM_H
#define BENCH_MINIMUM_H

#include <cstddef>

namespace bench {

//  Requires that size is at most 4194304, and that fewer than 16 blocks of the class for this size are allocated.
void* minimum_malloc(std::size_t size, std::size_t* outsize);
void minimum_free(void* p);

}  // namespace bench

#endif
