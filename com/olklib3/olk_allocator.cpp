#include "olk_allocator.h"

#include <cstdint>
#include <span>

#include <malloc.h>

namespace olk {

namespace {

constexpr uint64_t objheap_page_bytes = 524288;
constexpr uint64_t objheap_largest = 56;
constexpr size_t big_header_size = 16;

//  Some sizes follow no series. This is deliberate: a rounder size would change which class serves a request, and the
//  cost of the request.
constexpr uint32_t sizes_to_1424[] = {16, 32, 64, 96, 128, 256, 384, 512, 640, 800, 1024, 1424};
constexpr uint32_t sizes_to_64k[] = {2048, 3072, 5120, 8192, 12288, 16384, 20480, 24576, 32768, 49152, 65536};
constexpr uint32_t sizes_to_640k[] = {131072, 262144, 409600, 655360};
constexpr uint32_t sizes_to_4m[] = {1048576, 2097152, 4194304, 8388608};

//  A list of sizes with common parameters. A heap has heapbytes / size blocks, or two blocks if heapbytes is 0; the
//  first heap of a class may have fewer. The list ends before the first size that has at most min_blocks blocks per
//  heap or is above largest: this size and the sizes after it get no class. So 8388608 gets no class.
struct size_list {
    std::span<const uint32_t> sizes;
    uint32_t heapbytes;
    uint32_t min_blocks;
    uint32_t largest;
    size_t prealloc;  // number of classes, from the first on, that get their first heap at once
};

//  Initialised at compile time, because the allocator is constructed before other initialisers of this file run.
constexpr size_list size_lists[] = {
    {sizes_to_1424, 1048576, 3, UINT32_MAX, 3},
    {sizes_to_64k, 2097152, 3, UINT32_MAX, 0},
    {sizes_to_640k, 4194304, 1, UINT32_MAX, 0},
    {sizes_to_4m, 0, 0, 4194304, 0},
};

void add_classes(allocator& target, const size_list& list) {
    for (size_t i = 0; i < list.sizes.size() && target.classcount < allocator::max_classes; ++i) {
        const uint32_t size = list.sizes[i];
        const uint32_t blocks = list.heapbytes == 0 ? 2 : list.heapbytes / size;
        if (blocks <= list.min_blocks || size > list.largest)
            return;
        target.add_class_(size, blocks, i < list.prealloc);
    }
}

}  // namespace

//  101 is the lowest priority number that a program may use. So these two objects are constructed before all objects of
//  the program that have no priority, in any link order, and are destroyed after them.
__attribute__((init_priority(101))) glibc_noarena_ g_olk_glibc_noarena;
__attribute__((init_priority(101))) olk_allocator_ g_olk_allocator;

glibc_noarena_::glibc_noarena_() {
    mallopt(M_ARENA_MAX, 1);
    mallopt(M_MMAP_THRESHOLD, 1048576);
    mallopt(M_TRIM_THRESHOLD, 1048576);
}

olk_allocator_::olk_allocator_() : objheap(objheap_page_bytes, objheap_largest) {}

olk_allocator_::~olk_allocator_() = default;

bool olk_allocator_::unlocked() {
    const auto is_free = [](spinlock& lock) {
        const bool taken = lock.try_lock();
        if (taken)
            lock.unlock();
        return taken;
    };
    for (int32_t i = 0; i < alloc.classcount; ++i)
        if (!is_free(alloc.classes[i]->lock))
            return false;
    return is_free(objheap.lock);
}

void* memheap_::operator new(size_t size) noexcept {
    return get_olk_alloctor_self()->objheap.malloc_(size);
}

void memheap_::operator delete(void* p) noexcept {
    get_olk_alloctor_self()->objheap.free_(p);
}

allocator::allocator() : classcount(0), bigcount(0), classes{} {
    for (const size_list& list : size_lists)
        add_classes(*this, list);
}

allocator::~allocator() {
    for (int32_t i = 0; i < classcount; ++i)
        delete classes[i];
    forget(classes, sizeof classes);
    forget(&classcount, sizeof classcount);
}

bool allocator::add_class_(uint32_t blksize, uint32_t blkperheap, bool prealloc) {
    auto* added = new blk_alloctor<spinlock>(blksize, blkperheap);
    if (added == nullptr)
        return false;
    if (prealloc && !added->add_first_heap_(blk_alloctor<spinlock>::first_heap_count(blksize, blkperheap))) {
        delete added;
        return false;
    }
    classes[classcount++] = added;
    return true;
}

void* allocator::malloc_(size_t size, size_t* outsize) {
    const auto count = static_cast<size_t>(classcount);
    size_t lo = 0;
    size_t hi = count;
    while (lo < hi) {
        const size_t mid = (lo + hi) / 2;
        if (size > classes[mid]->blksize)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo < count ? classes[lo]->malloc_(outsize) : malloc_big_(size, outsize);
}

void* allocator::malloc_big_(size_t size, size_t* outsize) {
    if (size > SIZE_MAX - big_header_size)
        return nullptr;
    const size_t maplen = round_to_pages(size + big_header_size);
    void* mapping = map_pages(maplen);
    if (mapping == nullptr)
        return nullptr;
    store_word<uint64_t>(mapping, maplen);
    store_word<blk_heap*>(at(mapping, 8), nullptr);
    if (outsize != nullptr)
        *outsize = maplen - big_header_size;
    bigcount.fetch_add(1, std::memory_order_relaxed);
    return at(mapping, big_header_size);
}

void allocator::free_(void* p) {
    if (p == nullptr)
        return;
    blk_heap* heap = blk_heap::of(p);
    if (heap != nullptr) {
        heap->owner->free_(heap, p);
        return;
    }
    bigcount.fetch_sub(1, std::memory_order_relaxed);
    void* mapping = at(p, -ptrdiff_t{big_header_size});
    unmap_pages(mapping, load_word<uint64_t>(mapping));
}

size_t allocator::usable_size(const void* p) {
    const blk_heap* heap = blk_heap::of(p);
    if (heap != nullptr)
        return heap->blksize;
    return load_word<uint64_t>(at(p, -ptrdiff_t{big_header_size})) - big_header_size;
}

bool allocator::valid() {
    for (int32_t i = 0; i < classcount; ++i) {
        if (classes[i] == nullptr || !classes[i]->valid())
            return false;
        if (i > 0 && classes[i - 1]->blksize >= classes[i]->blksize)
            return false;
    }
    return true;
}

}  // namespace olk
