//  The memory that a process still has after it has freed all its blocks.
#ifndef BENCH_MEMORY_LEFT_H
#define BENCH_MEMORY_LEFT_H

#include <cstddef>

namespace bench {

//  Allocates a million blocks of size bytes, writes to each, and frees all in the order of their allocation. Prints by
//  how many bytes the resident memory of the process has grown.
void print_memory_left(std::size_t size);

}  // namespace bench

#endif
