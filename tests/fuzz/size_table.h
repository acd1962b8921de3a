//  A second implementation of the table of size classes. It is searched from its start.
#ifndef FUZZ_SIZE_TABLE_H
#define FUZZ_SIZE_TABLE_H

#include <cstdint>
#include <iterator>

struct size_row {
    uint32_t blksize;
    uint32_t blkperheap;
    uint32_t first;  // blocks of a class's first heap
};

//  In ascending order. The first three classes get their first heap when the allocator is constructed.
inline constexpr size_row size_table[] = {
    {16, 65536, 2048}, {32, 32768, 1024}, {64, 16384, 512}, {96, 10922, 341}, {128, 8192, 256}, {256, 4096, 128},
    {384, 2730, 85},   {512, 2048, 64},   {640, 1638, 51},  {800, 1310, 40},  {1024, 1024, 32}, {1424, 736, 23},
    {2048, 1024, 16},  {3072, 682, 16},   {5120, 409, 16},  {8192, 256, 16},  {12288, 170, 16}, {16384, 128, 16},
    {20480, 102, 16},  {24576, 85, 16},   {32768, 64, 16},  {49152, 42, 16},  {65536, 32, 16},  {131072, 32, 16},
    {262144, 16, 16},  {409600, 10, 10},  {655360, 6, 6},   {1048576, 2, 2},  {2097152, 2, 2},  {4194304, 2, 2},
};
inline constexpr uint64_t classes = std::size(size_table);
inline constexpr uint64_t first_heaps_at_start = 3;

//  Returns the index of the class that serves a request; `classes` for a big block.
inline uint64_t class_for(uint64_t request) {
    uint64_t i = 0;
    while (i < classes && size_table[i].blksize < request)
        ++i;
    return i;
}

//  Returns the length of a big block's mapping, with pages of 4 KiB.
inline uint64_t big_mapping(uint64_t request) {
    return (request + 16 + 4095) & ~uint64_t{4095};
}

//  Returns the number of usable bytes for a request.
inline uint64_t usable_for(uint64_t request) {
    const uint64_t i = class_for(request);
    return i < classes ? size_table[i].blksize : big_mapping(request) - 16;
}

#endif
