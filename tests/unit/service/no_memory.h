//  Replaces operator new of the program and of all libraries that it loads; it fails while a test requires it. So do
//  the nothrow forms and, in a program linked with --wrap=malloc, the program's malloc. The pooled allocator is not
//  affected.
#ifndef NO_MEMORY_H
#define NO_MEMORY_H

#include <cstddef>

//  While an object exists, requests of this thread fail: those of exactly this many bytes, or all.
class NoMemory {
public:
    static constexpr std::size_t any = 0;

    explicit NoMemory(std::size_t bytes = any);
    ~NoMemory();
    NoMemory(const NoMemory&) = delete;
    NoMemory& operator=(const NoMemory&) = delete;
};

#endif
