//  Raw memory: anonymous mappings, rounding to pages, and words kept inside memory that belongs to somebody else.
//
//  A free slot or block holds its list link in its own first word, and every block has a word in front of it. Those
//  words share memory with the user's bytes, so they are read and written by memcpy only: no type-based rule can
//  then move an access to a link across an access to the user's data.
//
//  Threads: every function is safe in any thread.
#ifndef OLK_MAPPING_H
#define OLK_MAPPING_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

namespace olk {

//  Returns the size of the smallest run of pages that holds n bytes, or 0 when that does not fit. The page size is
//  queried at every call and never kept.
inline size_t round_to_pages(size_t n) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return (n + page - 1) / page * page;
}

//  Maps len bytes of zeroed private memory, readable and writable. Returns null when the system has none to give: the
//  system's own failure marker ends here, so that everything above tests for null alone.
inline void* map_pages(size_t len) {
    void* p = mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? nullptr : p;
}

//  Gives a mapping back. Returns true on success.
inline bool unmap_pages(void* p, size_t len) {
    return munmap(p, len) == 0;
}

//  Returns the T that is stored at p.
template <class T>
T load_word(const void* p) {
    T value;
    std::memcpy(&value, p, sizeof(T));
    return value;
}

//  Stores value at p.
template <class T>
void store_word(void* p, T value) {
    std::memcpy(p, &value, sizeof(T));
}

//  Returns the address offset bytes behind p (in front of it when negative).
inline void* at(void* p, ptrdiff_t offset) {
    return static_cast<char*>(p) + offset;
}
inline const void* at(const void* p, ptrdiff_t offset) {
    return static_cast<const char*>(p) + offset;
}

//  Returns how far p lies behind base: a huge number when it lies in front of it. The two may belong to different
//  mappings, whose addresses cannot be compared as pointers.
inline uint64_t distance(const void* base, const void* p) {
    return reinterpret_cast<uintptr_t>(p) - reinterpret_cast<uintptr_t>(base);
}

//  Zeroes memory whose owner's life ends: plain stores there may be dropped by the compiler.
inline void forget(void* p, size_t len) {
    explicit_bzero(p, len);
}

}  // namespace olk

//  OLK_WALK(condition): in a checking build asserts condition, a walk over a whole structure; else nothing.
#ifdef OLK_CHECK
#include <cassert>
#define OLK_WALK(condition) assert(condition)
#else
#define OLK_WALK(condition) static_cast<void>(0)
#endif

#endif
