//  The pooled allocator: a sorted table of size classes, and a mapping of its own for every request above the largest.
//
//      size class   one block size and all its heaps (olk_blk_alloctor.h); 30 of them, 16 bytes to 4 MiB
//      big block    one mapping per request above 4 MiB
//
//      big block:   | maplen | 0 | user's bytes ... |   the user's address is 16 bytes behind the mapping's start; the 0
//                   0        8   16                     stands where a class block names its heap (address - 8)
//
//  One instance serves the whole process. Its constructor runs before that of any other global object and its destructor
//  after theirs, so a global object may free what it holds in its destructor.
//
//  User addresses are aligned to 8 bytes (16 for big blocks).
//
//  Threads: between those two moments malloc_ and free_ serve every thread. The table of classes is written by the
//  constructor only and is read without a lock; each class has a lock of its own, so a signal handler may call neither
//  when it interrupted one of them.
#ifndef OLK_ALLOCATOR_H
#define OLK_ALLOCATOR_H

#include "olk_blk_alloctor.h"

#include <atomic>

namespace olk {

struct allocator {
    static constexpr int32_t max_classes = 40;

    int32_t classcount;                            // classes in the table
    std::atomic<uint32_t> bigcount;                // live big blocks; a statistic
    blk_alloctor<spinlock>* classes[max_classes];  // ascending by blksize; null from classcount on

    //  Builds the 30 classes. A class whose record or first heap cannot be had is left out: the next larger one then
    //  serves its sizes.
    allocator();
    //  Unmaps every heap of every class. Big blocks are not tracked and stay mapped.
    ~allocator();
    allocator(const allocator&) = delete;
    allocator& operator=(const allocator&) = delete;

    //  Takes a block of at least size bytes. Stores the usable bytes through outsize unless that is null. Returns null
    //  when no memory can be had.
    void* malloc_(size_t size, size_t* outsize);

    //  Gives a block back. Null is ignored. Requires: p came from malloc_ and was not given back.
    void free_(void* p);

    //  Returns the usable bytes of the block at p, the same figure that malloc_ reported.
    static size_t usable_size(const void* p);

    //  Appends one class, with its first heap when prealloc is set. Requires: blksize is above that of the last class
    //  and the table has room. Returns false, and changes nothing, when memory cannot be had.
    bool add_class_(uint32_t blksize, uint32_t blkperheap, bool prealloc);

    //  True when the table is sorted and every class holds its invariants.
    bool valid();

private:
    void* malloc_big_(size_t size, size_t* outsize);
};

//  The object heap and the allocator that is built on it, in this order: each is destroyed before what it stands on.
struct olk_allocator_ {
    objalloctor_<spinlock> objheap;
    allocator alloc;

    olk_allocator_();
    ~olk_allocator_();

    //  Returns true when no lock of the object heap or of a class was held, each at the moment of being asked. For a signal
    //  handler, which must not wait for a lock that the code beneath it holds.
    bool unlocked();
};

//  Tunes the C library's allocator, which serves everything outside this library (mallopt(3)): one arena for all threads,
//  requests from 1 MiB on as mappings, and 1 MiB free at the top of the heap before it is trimmed. Nothing is undone at
//  exit.
struct glibc_noarena_ {
    glibc_noarena_();
};

extern glibc_noarena_ g_olk_glibc_noarena;
extern olk_allocator_ g_olk_allocator;

//  Returns the process-wide object heap together with its allocator.
inline olk_allocator_* get_olk_alloctor_self() {
    return &g_olk_allocator;
}

//  Returns the process-wide allocator.
inline allocator* get_olk_allocator() {
    return &g_olk_allocator.alloc;
}

}  // namespace olk

#endif
