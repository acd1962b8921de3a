//  The pooled allocator: a sorted table of size classes, and a separate mapping for each request above the largest
//  class.
//
//      size class   one block size and all its heaps (olk_blk_alloctor.h); there are 30, from 16 bytes to 4 MiB
//      big block    one mapping per request above 4 MiB
//
//      big block:   | maplen | 0 | user's bytes ... |   offsets in bytes from the start of the mapping
//                   0        8   16
//
//  The 8 bytes before the user's address are 0 here; in a block of a size class they are the address of its heap.
//
//  One instance serves the whole process. Its constructor runs before the constructors of the program's other global
//  objects, except g_olk_glibc_noarena, and its destructor after their destructors. So the destructor of such an object
//  may free memory.
//
//  User addresses are aligned to 8 bytes (16 for big blocks).
//
//  Threads: after the constructor and before the destructor, any thread may call malloc_ and free_. The table of
//  classes does not change in this time, so it is read without a lock. Each class has its own lock. A signal handler
//  that interrupted malloc_ or free_ must call neither function: it could wait forever for a lock that the interrupted
//  code holds.
#ifndef OLK_ALLOCATOR_H
#define OLK_ALLOCATOR_H

#include "olk_blk_alloctor.h"

#include <atomic>

namespace olk {

struct allocator {
    static constexpr int32_t max_classes = 40;

    int32_t classcount;                            // classes in the table
    std::atomic<uint32_t> bigcount;                // big blocks in use; statistics only
    blk_alloctor<spinlock>* classes[max_classes];  // ascending by blksize; null from index classcount on

    //  Creates the 30 classes, and the first heaps of three of them. A class for which memory is exhausted is left out;
    //  the next larger class, or else a big block, serves its sizes.
    allocator();
    //  Unmaps every heap of every class. Big blocks are not tracked and stay mapped.
    ~allocator();
    allocator(const allocator&) = delete;
    allocator& operator=(const allocator&) = delete;

    //  Allocates a block of at least size bytes. Stores the number of usable bytes in *outsize unless outsize is null.
    //  Returns null if there is not enough memory.
    void* malloc_(size_t size, size_t* outsize);

    //  Frees a block. Null is ignored. Requires that malloc_ returned p and that p was not freed since.
    void free_(void* p);

    //  Returns the number of usable bytes of the block at p, which is the number that malloc_ stored in *outsize.
    static size_t usable_size(const void* p);

    //  Appends one class, with its first heap if prealloc is true. Requires that blksize is greater than that of the
    //  last class, and that the table has room. Returns false and changes nothing if memory is exhausted.
    bool add_class_(uint32_t blksize, uint32_t blkperheap, bool prealloc);

    //  Returns true if the table is sorted and the invariants of every class hold.
    bool valid();

private:
    void* malloc_big_(size_t size, size_t* outsize);
};

//  The object heap and the allocator that uses it. The order of the members matters: the allocator must be destroyed
//  first.
struct olk_allocator_ {
    objalloctor_<spinlock> objheap;
    allocator alloc;

    olk_allocator_();
    ~olk_allocator_();

    //  Returns true if the lock of the object heap and the locks of all classes were free, each at the time when it was
    //  tested. Intended for a signal handler, which must not wait for a lock that the interrupted code holds.
    bool unlocked();
};

//  Tunes the C library's malloc(3) with mallopt(3): one arena for all threads, mappings for requests of 1 MiB or more
//  that no free memory of the arena satisfies, and automatic trimming only above 1 MiB of free memory at the top of the
//  heap. The settings stay in force until the process ends.
struct glibc_noarena_ {
    glibc_noarena_();
};

extern glibc_noarena_ g_olk_glibc_noarena;
extern olk_allocator_ g_olk_allocator;

//  Returns the process-wide object heap and its allocator.
inline olk_allocator_* get_olk_alloctor_self() {
    return &g_olk_allocator;
}

//  Returns the process-wide allocator.
inline allocator* get_olk_allocator() {
    return &g_olk_allocator.alloc;
}

}  // namespace olk

#endif
