//  What stays with the process after it has given everything back.
#ifndef BENCH_MEMORY_LEFT_H
#define BENCH_MEMORY_LEFT_H

#include <cstddef>

namespace bench {

//  Takes a million blocks of size bytes, touches each, gives all back in the order in which they were taken, and prints
//  by how many bytes the process has grown since before.
void print_memory_left(std::size_t size);

}  // namespace bench

#endif
