//  Replaces operator new of the program and of all libraries that it loads. While a NoMemory object exists, operator
//  new fails. So do the nothrow forms and, in a program linked with --wrap=malloc, the program's malloc. The pooled
//  allocator is not affected.
#ifndef NO_MEMORY_H
#define NO_MEMORY_H

#include <cstddef>

//  While an object exists, memory requests of this thread fail: all of them, or only those of the given number of
//  bytes.
class NoMemory {
public:
    static constexpr std::size_t any = 0;

    explicit NoMemory(std::size_t bytes = any);
    ~NoMemory();
    NoMemory(const NoMemory&) = delete;
    NoMemory& operator=(const NoMemory&) = delete;
};

#endif
