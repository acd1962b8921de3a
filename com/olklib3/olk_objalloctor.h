//  The object heap: slots of equal size for objects of at most objsize bytes, taken from mappings and aligned to 8
//  bytes. The records of the size classes and of their heaps are in this heap.
//
//      obj_page at the start of a mapping                                        maplen
//      | maplen | slotsize | freecount | slotcount | bump | freelist | next | slot 0 | slot 1 | ... |
//      0                                                                  56   56 + i * slotsize
//
//  Invariants: (1) freecount = sum of the pages' freecounts. (2) A page's freecount = length of its freelist +
//  slotcount - bump. (3) Every node of a freelist is a slot below that page's bump. (4) No page after the head is
//  entirely free.
//
//  Threads: any thread may call malloc_ and free_; one lock protects the heap and all its pages. No other lock of the
//  library is taken while it is held.
#ifndef OLK_OBJALLOCTOR_H
#define OLK_OBJALLOCTOR_H

#include "olk_mapping.h"
#include "olk_spinlock.h"

namespace olk {

//  "page" here is one mapping of the object heap, not a page of the operating system.
struct obj_page {
    uint64_t maplen;     // bytes of the mapping, a multiple of the system page
    uint64_t slotsize;   // bytes from one slot to the next
    uint64_t freecount;  // free slots: freed ones, and ones that were never used
    uint64_t slotcount;  // slots in this page
    uint64_t bump;       // slots carved so far; slots from this index on were never used
    void* freelist;      // freed slots, linked through their first words; null if none
    obj_page* next;      // null in the last page

    char* slot(uint64_t i) { return reinterpret_cast<char*>(this + 1) + i * slotsize; }
    bool holds(const void* p) { return distance(slot(0), p) < slotcount * slotsize; }

    //  Takes a freed slot or, if there is none, a slot that was never used. Returns null if the page is full.
    void* take();
    //  Returns true if invariants 2 and 3 hold for this page.
    bool valid();
};

static_assert(sizeof(obj_page) == 56, "slots start 56 bytes behind the start of a page");

template <class LOCK>
struct objalloctor_ {
    uint64_t heapsize;   // requested bytes per page
    uint64_t objsize;    // maximum size of an object in bytes
    uint64_t freecount;  // free slots of all pages
    obj_page* pages;     // the head page, searched first for a free slot; null if none
    LOCK lock;           // protects all members above and all pages

    //  Maps the first page at once; if memory is exhausted, pages is null. Requires largest > 0, and a slot for largest
    //  bytes must fit a page of bytes_per_page.
    objalloctor_(uint64_t bytes_per_page, uint64_t largest);
    //  Unmaps all pages, even if slots are in use.
    ~objalloctor_();
    objalloctor_(const objalloctor_&) = delete;
    objalloctor_& operator=(const objalloctor_&) = delete;

    //  Takes one slot. Returns null if size is above objsize or if memory is exhausted.
    void* malloc_(size_t size);

    //  Frees a slot. If its page is then entirely free and is not the head, unmaps the page. Returns false and changes
    //  nothing if p is null or in none of the pages. Also returns false if unmapping fails.
    bool free_(void* p);

    //  Returns true if all invariants hold. Takes the lock.
    bool valid();

private:
    bool add_page_();
    bool valid_();
};

//  Base class for objects of at most objsize bytes. Its operators new and delete use the process-wide object heap.
//  operator new returns null if there is no slot.
struct memheap_ {
    static void* operator new(size_t size) noexcept;
    static void operator delete(void* p) noexcept;
};

inline void* obj_page::take() {
    void* slot_address = freelist;
    if (slot_address != nullptr)
        freelist = load_word<void*>(slot_address);
    else if (bump < slotcount)
        slot_address = slot(bump++);
    else
        return nullptr;
    --freecount;
    return slot_address;
}

inline bool obj_page::valid() {
    uint64_t freed = 0;
    for (void* p = freelist; p != nullptr; p = load_word<void*>(p)) {
        const uint64_t offset = distance(slot(0), p);
        if (offset >= bump * slotsize || offset % slotsize != 0 || ++freed > slotcount)
            return false;
    }
    return bump <= slotcount && freecount == freed + slotcount - bump;
}

template <class LOCK>
objalloctor_<LOCK>::objalloctor_(uint64_t bytes_per_page, uint64_t largest)
    : heapsize(bytes_per_page), objsize(largest), freecount(0), pages(nullptr) {
    add_page_();
}

template <class LOCK>
objalloctor_<LOCK>::~objalloctor_() {
    while (pages != nullptr) {
        obj_page* page = pages;
        pages = page->next;
        unmap_pages(page, page->maplen);
    }
    forget(&pages, sizeof pages);
    forget(&freecount, sizeof freecount);
}

template <class LOCK>
bool objalloctor_<LOCK>::add_page_() {
    const size_t maplen = round_to_pages(heapsize);
    auto* page = static_cast<obj_page*>(map_pages(maplen));
    if (page == nullptr)
        return false;
    page->maplen = maplen;
    page->slotsize = (objsize + 15) / 16 * 16;
    page->slotcount = (maplen - sizeof(obj_page)) / page->slotsize;
    page->freecount = page->slotcount;
    page->next = pages;
    pages = page;
    freecount += page->slotcount;
    return true;
}

template <class LOCK>
void* objalloctor_<LOCK>::malloc_(size_t size) {
    scoped_lock_<LOCK> guard(&lock);
    if (size > objsize)
        return nullptr;
    if (freecount == 0 && !add_page_())
        return nullptr;
    obj_page* before = nullptr;
    for (obj_page* page = pages; page != nullptr; before = page, page = page->next) {
        void* slot_address = page->take();
        if (slot_address == nullptr)
            continue;
        --freecount;
        if (before != nullptr && page->freecount != 0) {
            before->next = page->next;
            page->next = pages;
            pages = page;
        }
        OLK_WALK(valid_());
        return slot_address;
    }
    return nullptr;
}

template <class LOCK>
bool objalloctor_<LOCK>::free_(void* p) {
    scoped_lock_<LOCK> guard(&lock);
    obj_page* before = nullptr;
    obj_page* page = pages;
    while (page != nullptr && !page->holds(p)) {
        before = page;
        page = page->next;
    }
    if (page == nullptr)
        return false;
    store_word(p, page->freelist);
    page->freelist = p;
    ++page->freecount;
    ++freecount;
    bool done = true;
    if (before != nullptr && page->freecount == page->slotcount) {
        before->next = page->next;
        freecount -= page->slotcount;
        done = unmap_pages(page, page->maplen);
    }
    OLK_WALK(valid_());
    return done;
}

template <class LOCK>
bool objalloctor_<LOCK>::valid() {
    scoped_lock_<LOCK> guard(&lock);
    return valid_();
}

template <class LOCK>
bool objalloctor_<LOCK>::valid_() {
    uint64_t sum = 0;
    for (obj_page* page = pages; page != nullptr; page = page->next) {
        if (!page->valid() || (page != pages && page->freecount == page->slotcount))
            return false;
        sum += page->freecount;
    }
    return sum == freecount;
}

}  // namespace olk

#endif
