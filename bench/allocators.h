//  The allocators side by side. c_library is whatever malloc the process has: glibc's, or one that was preloaded. It is
//  measured in a program of its own, BENCH_PLAIN, since olklib3 tunes glibc's in every program that it is linked to.
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
    static void* take(std::size_t size) { return olk::get_olk_allocator()->malloc_(size, nullptr); }
    static void give(void* p) { olk::get_olk_allocator()->free_(p); }
};

struct least {
    static constexpr char name[] = "minimum";
    static void* take(std::size_t size) { return minimum_malloc(size, nullptr); }
    static void give(void* p) { minimum_free(p); }
};
#else
struct c_library {
    static constexpr char name[] = "malloc";
    static void* take(std::size_t size) { return std::malloc(size); }
    static void give(void* p) { std::free(p); }
};
#endif

}  // namespace bench

#endif
