#include "memory_left.h"

#include "allocators.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include <unistd.h>

namespace bench {

namespace {

constexpr std::size_t million = 1'000'000;

//  Returns the resident bytes of this process.
long resident() {
    std::FILE* file = std::fopen("/proc/self/statm", "re");
    long total = 0;
    long pages = 0;
    if (file == nullptr || std::fscanf(file, "%ld %ld", &total, &pages) != 2)
        pages = 0;
    if (file != nullptr)
        std::fclose(file);
    return pages * sysconf(_SC_PAGESIZE);
}

#ifdef BENCH_PLAIN
using allocator = c_library;
#else
using allocator = pooled;
#endif

}  // namespace

void print_memory_left(std::size_t size) {
    const auto blocks = std::make_unique<void*[]>(million);
    resident();
    const long before = resident();
    for (std::size_t i = 0; i < million; ++i) {
        blocks[i] = allocator::allocate(size);
        std::memset(blocks[i], 1, size);
    }
    for (std::size_t i = 0; i < million; ++i)
        allocator::release(blocks[i]);
    std::printf("%ld\n", resident() - before);
}

}  // namespace bench
