//  Raw memory: anonymous mappings, rounding to pages, and words stored inside other objects' memory.
//
//  A freed slot or block contains a list link in its first word, and each block has a header word before it. The links
//  and headers are in the same memory as the user's data, so they are read and written only with memcpy. Otherwise the
//  aliasing rule would allow the compiler to reorder an access to a link and an access to the user's data.
//
//  Threads: any thread may call these functions.
#ifndef OLK_MAPPING_H
#define OLK_MAPPING_H

//  The only check of the platform. The records of the allocator and of the client library have fixed layouts. The
//  service and addrpubd-check include this file, so neither is built for any other kind of processor.
#if __SIZEOF_POINTER__ != 8 || __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "addrpubd needs a 64-bit little-endian processor: its records have 8-byte addresses and little-endian integers"
#endif

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

namespace olk {

//  Returns n rounded up to whole pages, or 0 if the result does not fit size_t. Queries the page size at each call.
inline size_t round_to_pages(size_t n) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return (n + page - 1) / page * page;
}

//  Maps len bytes of zeroed private memory, readable and writable. On failure returns null, not MAP_FAILED, so that
//  callers need to test only for null.
inline void* map_pages(size_t len) {
    void* p = mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? nullptr : p;
}

//  Unmaps a mapping. Returns true on success.
inline bool unmap_pages(void* p, size_t len) {
    return munmap(p, len) == 0;
}

//  Returns the value of type T that is stored at p.
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

//  Returns the address offset bytes after p (before p if offset is negative).
inline void* at(void* p, ptrdiff_t offset) {
    return static_cast<char*>(p) + offset;
}
inline const void* at(const void* p, ptrdiff_t offset) {
    return static_cast<const char*>(p) + offset;
}

//  Returns the number of bytes from base to p, or a huge number if p is below base. The two may belong to different
//  mappings, and such addresses cannot be compared as pointers.
inline uint64_t distance(const void* base, const void* p) {
    return reinterpret_cast<uintptr_t>(p) - reinterpret_cast<uintptr_t>(base);
}

//  Sets memory of an object that is being destroyed to zero. The compiler may remove ordinary stores to such memory.
inline void forget(void* p, size_t len) {
    explicit_bzero(p, len);
}

}  // namespace olk

//  OLK_WALK(condition): in a checking build, asserts condition, which checks a whole structure; otherwise does nothing.
#ifdef OLK_CHECK
#include <cassert>
#define OLK_WALK(condition) assert(condition)
#else
#define OLK_WALK(condition) static_cast<void>(0)
#endif

#endif
