//  One size class of the pooled allocator: a list of heaps. Each heap is a separate mapping, divided into blocks of the
//  same size.
//
//      base                                                    base + maplen
//      | hdr | block 0 | hdr | block 1 | ... | never used ... |
//        |     ^
//        |     the user's address
//        +--> blk_heap --owner--> blk_alloctor
//
//  hdr is the header of the block that follows: 8 bytes with the address of the block's blk_heap. It is written when
//  the block is used for the first time, and never changes. So one load finds the heap of a user address.
//
//      heaps --> head heap --> second heap --> ... --> null
//
//  The head heap never moves, and only the destructor releases it. A new heap is inserted after the head. A later heap
//  moves to this place when it has served a block and still has free blocks.
//
//  Invariants: (1) The class's freecount = sum of its heaps' freecounts. (2) A heap's freecount = length of its
//  freelist + blkcount - bump. (3) Every node of a freelist is a block below that heap's bump, and its header points to
//  that heap. (4) heapcount = length of the list. (5) Every heap after the head has exactly blkperheap blocks.
//
//  Threads: any thread may call malloc_ and free_. The lock of the class protects its list and all its heaps. While it
//  is held, the lock of the object heap may be taken.
#ifndef OLK_BLK_ALLOCTOR_H
#define OLK_BLK_ALLOCTOR_H

#include "olk_objalloctor.h"

#include <cassert>

namespace olk {

//  Bytes of the header of a block.
constexpr size_t blk_header_size = 8;

struct blk_heap;

//  LOCK must be spinlock: blk_heap::owner points to blk_alloctor<spinlock>.
template <class LOCK>
struct blk_alloctor : memheap_ {
    blk_heap* heaps;      // the head of the list; null without a heap
    int32_t heapcount;    // heaps in the list
    uint32_t freecount;   // free blocks of all heaps: freed ones, and ones that were never used
    uint32_t blksize;     // bytes per block, a multiple of 8
    uint32_t blkperheap;  // blocks of each heap after the head; the head may have fewer
    LOCK lock;            // protects all members above and all heaps

    //  Creates a class without a heap. Rounds size up to a multiple of 8. Requires 1 <= size <= 2^32 - 8 and per_heap >
    //  0.
    blk_alloctor(uint32_t size, uint32_t per_heap);
    //  Unmaps all heaps, even if blocks are in use.
    ~blk_alloctor();
    blk_alloctor(const blk_alloctor&) = delete;
    blk_alloctor& operator=(const blk_alloctor&) = delete;

    //  Allocates one block. Stores blksize in *outsize unless outsize is null. Returns null and changes nothing if a
    //  new heap is needed and memory is exhausted. Aborts if the free count of the class is above zero but no heap has
    //  a free block.
    void* malloc_(size_t* outsize);

    //  Frees a block. Requires that malloc_ of this class returned p, and that the header of p points to heap.
    void free_(blk_heap* heap, void* p);

    //  Creates the head heap with count blocks. Requires a class without a heap. Returns false if memory is exhausted.
    bool add_first_heap_(uint32_t count);

    //  Returns the number of blocks of a first heap: min(per_heap, max(16, n)), where n is the number of blocks of size
    //  bytes in 32 KiB, without their headers.
    static uint32_t first_heap_count(uint32_t size, uint32_t per_heap);

    //  Returns true if all invariants hold. Takes the lock.
    bool valid();

private:
    blk_heap* new_heap_(uint32_t count);
    void* grow_();
    void* take_();
    void release_free_heaps_();
    bool valid_();
};

//  The record of one heap. It is allocated from the object heap, not from the heap's own mapping.
struct blk_heap {
    uint32_t freecount;             // free blocks in this heap
    uint32_t blkcount;              // blocks in this heap
    uint32_t blksize;               // bytes per block, as in the class
    uint32_t bump;                  // blocks carved so far; blocks from this index on were never used
    uint64_t maplen;                // bytes of the mapping
    char* base;                     // start of the mapping
    void* freelist;                 // freed blocks (user addresses), linked through their first words; null if none
    blk_alloctor<spinlock>* owner;  // the class
    blk_heap* next;                 // null in the last heap

    //  Returns the heap of the block at user address p; null for a big block.
    static blk_heap* of(const void* p) { return load_word<blk_heap*>(at(p, -ptrdiff_t{blk_header_size})); }

    //  Takes a freed block or, if there is none, a block that was never used. Returns null if the heap is full.
    void* take();
    //  Takes the first block that was never used. Requires bump < blkcount.
    void* carve();
    bool wholly_free() const { return freecount == blkcount; }
    //  Returns true if invariants 2 and 3 hold for this heap, and its blocks fit into its mapping.
    bool valid() const;
    //  Unmaps the heap and frees this record.
    void release();
};

static_assert(sizeof(blk_heap) == 56, "a heap record fills one slot of the object heap");
static_assert(sizeof(blk_alloctor<spinlock>) <= 56, "a class record fits one slot of the object heap");

//  Reports a damaged size class and aborts: its free count is above zero, but no heap has a free block. The source
//  position in the report is a fixed text, not the position of this code. So the report stays the same if the code
//  moves.
[[noreturn]] inline void report_broken_class() {
    __assert_fail("pret != nullptr", "../com/olklib3/olk_alloctor", 597,
                  "void* olk::blk_alloctor<LOCK>::malloc_(size_t*) [with LOCK = olk::spinlock; size_t = long unsigned "
                  "int]");
}

inline void* blk_heap::carve() {
    void* header = base + uint64_t{bump} * (blksize + blk_header_size);
    store_word(header, this);
    ++bump;
    --freecount;
    return at(header, blk_header_size);
}

inline void* blk_heap::take() {
    void* p = freelist;
    if (p == nullptr)
        return bump < blkcount ? carve() : nullptr;
    freelist = load_word<void*>(p);
    --freecount;
    return p;
}

inline bool blk_heap::valid() const {
    const uint64_t stride = blksize + blk_header_size;
    const char* first = base + blk_header_size;
    uint32_t freed = 0;
    for (void* p = freelist; p != nullptr; p = load_word<void*>(p)) {
        const uint64_t offset = distance(first, p);
        if (offset >= bump * stride || offset % stride != 0 || of(p) != this || ++freed > blkcount)
            return false;
    }
    return bump <= blkcount && freecount == freed + blkcount - bump && blkcount * stride <= maplen;
}

inline void blk_heap::release() {
    unmap_pages(base, maplen);
    forget(this, sizeof *this);
    memheap_::operator delete(this);
}

template <class LOCK>
blk_alloctor<LOCK>::blk_alloctor(uint32_t size, uint32_t per_heap)
    : heaps(nullptr), heapcount(0), freecount(0), blksize((size + 7) / 8 * 8), blkperheap(per_heap) {}

template <class LOCK>
blk_alloctor<LOCK>::~blk_alloctor() {
    while (heaps != nullptr) {
        blk_heap* heap = heaps;
        heaps = heap->next;
        heap->release();
    }
    forget(this, sizeof *this);
}

template <class LOCK>
uint32_t blk_alloctor<LOCK>::first_heap_count(uint32_t size, uint32_t per_heap) {
    constexpr uint32_t small_heap_bytes = 32768;
    constexpr uint32_t min_count = 16;
    if (per_heap <= min_count || uint64_t{size} * per_heap <= small_heap_bytes)
        return per_heap;
    const uint32_t fitting = small_heap_bytes / size;
    return fitting > min_count ? fitting : min_count;
}

template <class LOCK>
blk_heap* blk_alloctor<LOCK>::new_heap_(uint32_t count) {
    auto* heap = static_cast<blk_heap*>(memheap_::operator new(sizeof(blk_heap)));
    if (heap == nullptr)
        return nullptr;
    const size_t maplen = round_to_pages((blksize + blk_header_size) * count);
    void* base = map_pages(maplen);
    if (base == nullptr) {
        memheap_::operator delete(heap);
        return nullptr;
    }
    *heap = blk_heap{count, count, blksize, 0, maplen, static_cast<char*>(base), nullptr, this, nullptr};
    return heap;
}

template <class LOCK>
bool blk_alloctor<LOCK>::add_first_heap_(uint32_t count) {
    heaps = new_heap_(count);
    if (heaps == nullptr)
        return false;
    heapcount = 1;
    freecount += count;
    return true;
}

template <class LOCK>
void* blk_alloctor<LOCK>::grow_() {
    if (heaps == nullptr) {
        if (!add_first_heap_(first_heap_count(blksize, blkperheap)))
            return nullptr;
        --freecount;
        return heaps->carve();
    }
    blk_heap* heap = new_heap_(blkperheap);
    if (heap == nullptr)
        return nullptr;
    heap->next = heaps->next;
    heaps->next = heap;
    ++heapcount;
    freecount += blkperheap - 1;
    return heap->carve();
}

template <class LOCK>
void* blk_alloctor<LOCK>::take_() {
    blk_heap* before = nullptr;
    for (blk_heap* heap = heaps; heap != nullptr; before = heap, heap = heap->next) {
        void* p = heap->take();
        if (p == nullptr)
            continue;
        --freecount;
        //  A heap that still has free blocks moves to the place after the head. The head itself deliberately never
        //  moves, because only the head may have fewer than blkperheap blocks (invariant 5).
        if (before != nullptr && before != heaps && heap->freecount != 0) {
            before->next = heap->next;
            heap->next = heaps->next;
            heaps->next = heap;
        }
        return p;
    }
    report_broken_class();
}

template <class LOCK>
void* blk_alloctor<LOCK>::malloc_(size_t* outsize) {
    scoped_lock_<LOCK> guard(&lock);
    //  NOLINTNEXTLINE(clang-analyzer-core.NullDereference): clang-analyzer assumes that the pointer `this` may be null
    void* p = freecount == 0 ? grow_() : take_();
    OLK_WALK(valid_());
    if (p != nullptr && outsize != nullptr)
        *outsize = blksize;
    return p;
}

template <class LOCK>
void blk_alloctor<LOCK>::free_(blk_heap* heap, void* p) {
    scoped_lock_<LOCK> guard(&lock);
    store_word(p, heap->freelist);
    heap->freelist = p;
    ++heap->freecount;
    ++freecount;
    //  Hysteresis: no heap is released if the class has at most three heaps, or if all free blocks of the class are in
    //  the heap of this block. Without these conditions, a program that allocates and frees one block in turn while all
    //  other heaps are full would cause a mapping or an unmapping at each call. When the class releases heaps, it
    //  releases all entirely free heaps after the head, so fewer than three may remain.
    if (heapcount > 3 && heap->wholly_free() && heap != heaps && freecount != blkperheap)
        release_free_heaps_();
    OLK_WALK(valid_());
}

template <class LOCK>
void blk_alloctor<LOCK>::release_free_heaps_() {
    blk_heap* before = heaps;
    while (blk_heap* heap = before->next) {
        if (!heap->wholly_free()) {
            before = heap;
            continue;
        }
        before->next = heap->next;
        heap->release();
        --heapcount;
        freecount -= blkperheap;  // the blkcount of each heap after the head
    }
}

template <class LOCK>
bool blk_alloctor<LOCK>::valid() {
    scoped_lock_<LOCK> guard(&lock);
    return valid_();
}

template <class LOCK>
bool blk_alloctor<LOCK>::valid_() {
    uint64_t sum = 0;
    int32_t count = 0;
    for (blk_heap* heap = heaps; heap != nullptr; heap = heap->next) {
        if (!heap->valid() || heap->owner != this || heap->blksize != blksize)
            return false;
        if (heap != heaps && heap->blkcount != blkperheap)
            return false;
        sum += heap->freecount;
        ++count;
    }
    return sum == freecount && count == heapcount;
}

}  // namespace olk

#endif
