//  Allocator types for string_ that record the requests of the string.
//
//      watched_alloctor   the process-wide allocator, with a list of its calls; can fail, and overwrites
//                         freed blocks
//      mapped_alloctor    one private mapping per block, so that unused pages of a 4 GiB block use no memory; blocks
//                         can be made read-only
//
//  Threads: one thread only.
#ifndef OLK_STRING_WATCH_H
#define OLK_STRING_WATCH_H

#include "olk_string.h"

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <sys/mman.h>

struct watched_alloctor {
    static inline std::vector<std::string> calls;  // "malloc <request>", "free <usable size>"
    static inline bool refusing = false;

    static void* malloc_(size_t size, size_t* outsize) {
        calls.push_back("malloc " + std::to_string(size));
        return refusing ? nullptr : olk::get_olk_allocator()->malloc_(size, outsize);
    }
    static void free_(void* p) {
        calls.push_back("free " + std::to_string(usable_size(p)));
        std::memset(p, 0xdd, usable_size(p));
        olk::get_olk_allocator()->free_(p);
    }
    static size_t usable_size(const void* p) { return olk::allocator::usable_size(p); }

    //  Returns the calls since the last take.
    static std::vector<std::string> take() {
        std::vector<std::string> taken;
        taken.swap(calls);
        return taken;
    }
};

struct mapped_alloctor {
    static inline std::vector<size_t> requests;
    static inline std::map<const void*, size_t> blocks;  // size of each allocated block in bytes
    //  The size that usable_size reports. It is small, so that moving a block of 4 GiB copies few bytes. malloc_
    //  reports the size of the request.
    static constexpr size_t reported_usable = 64;

    static void* malloc_(size_t size, size_t* outsize) {
        requests.push_back(size);
        void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (p == MAP_FAILED)
            return nullptr;
        blocks[p] = size;
        *outsize = size;
        return p;
    }
    static void free_(void* p) {
        munmap(p, blocks[p]);
        blocks.erase(p);
    }
    static size_t usable_size(const void*) { return reported_usable; }

    //  Makes the block that contains these characters read-only or writable.
    static void protect(char* data, bool read_only) {
        void* block = data - 8;
        mprotect(block, blocks[block], read_only ? PROT_READ : PROT_READ | PROT_WRITE);
    }

    static std::vector<size_t> take() {
        std::vector<size_t> taken;
        taken.swap(requests);
        return taken;
    }
};

using watched_string = olk::string_<watched_alloctor, unsigned int, char, void>;
using mapped_string = olk::string_<mapped_alloctor, unsigned int, char, void>;

//  These functions write one of the two counts that the block contains before the characters.
template <class STRING>
void set_stored_capacity(STRING& s, uint32_t capacity) {
    olk::store_word(olk::at(s.data(), -8), capacity);
}
template <class STRING>
void set_stored_size(STRING& s, uint32_t size) {
    olk::store_word(olk::at(s.data(), -4), size);
}

//  Returns the text of `s`, including zero bytes.
template <class STRING>
std::string text_of(const STRING& s) {
    return s.data() == nullptr ? std::string() : std::string(s.data(), s.size());
}

#endif
