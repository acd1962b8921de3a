//  The allocators that are compared. c_library is the malloc of the process: that of glibc or a preloaded one. It is
//  measured in a separate program, compiled with BENCH_PLAIN, because olklib3 tunes glibc's malloc in each program that
//  contains it.
#ifndef BENCH_ALLOCATORS_H
#define BENCH_ALLOCATORS_H

#include <cstdlib>

#ifndef BENCH_PLAIN
#include "minimum.h"
#include "olk_allocator.h"
#endif

namespace bench {

#ifndef BENCH_PLAIN
struct pooled {
    static constexpr char name[] = "olk";
    static void* allocate(std::size_t size) { return olk::get_olk_allocator()->malloc_(size, nullptr); }
    static void release(void* p) { olk::get_olk_allocator()->free_(p); }
};

struct minimum {
    static constexpr char name[] = "minimum";
    static void* allocate(std::size_t size) { return minimum_malloc(size, nullptr); }
    static void release(void* p) { minimum_free(p); }
};
#else
struct c_library {
    static constexpr char name[] = "malloc";
    static void* allocate(std::size_t size) { return std::malloc(size); }
    static void release(void* p) { std::free(p); }
};
#endif

}  // namespace bench

#endif
