//  The program's operator new, which finds no memory while a test says so. It stands in front of the one of every
//  library that the program loads; the nothrow forms fail with it, and so does the program's malloc where it is linked with
//  --wrap=malloc. The pooled allocator is not part of it.
#ifndef NO_MEMORY_H
#define NO_MEMORY_H

#include <cstddef>

//  While one lives, this thread's requests fail: those for exactly so many bytes, or all.
class NoMemory {
public:
    static constexpr std::size_t any = 0;

    explicit NoMemory(std::size_t bytes = any);
    ~NoMemory();
    NoMemory(const NoMemory&) = delete;
    NoMemory& operator=(const NoMemory&) = delete;
};

#endif
