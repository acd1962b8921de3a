#include "minimum.h"

#include <cstdint>
#include <cstdlib>

#include <pthread.h>
#include <sys/mman.h>

namespace bench {

namespace {

struct size_class;

struct heap {
    std::uint32_t freecount;
    std::uint32_t blkcount;
    void** freelist;
    size_class* owner;
};

struct size_class {
    heap* head;
    std::int32_t heapcount;
    std::uint32_t freecount;
    std::uint32_t blksize;
    std::uint32_t blkperheap;
    pthread_spinlock_t lock;
};

constexpr std::uint32_t sizes[] = {16,    32,    64,    96,     128,    256,    384,    512,     640,     800,
                                   1024,  1424,  2048,  3072,   5120,   8192,   12288,  16384,   20480,   24576,
                                   32768, 49152, 65536, 131072, 262144, 409600, 655360, 1048576, 2097152, 4194304};
constexpr std::int32_t class_count = sizeof sizes / sizeof *sizes;
constexpr std::uint32_t blocks = 16;
constexpr std::size_t header = 8;

void fill(size_class& cls, std::uint32_t size) {
    cls = {new heap{blocks, blocks, nullptr, &cls}, 1, blocks, size, blocks, {}};
    pthread_spin_init(&cls.lock, PTHREAD_PROCESS_PRIVATE);
    const std::size_t stride = size + header;
    auto* base =
        static_cast<char*>(mmap(nullptr, stride * blocks, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (base == MAP_FAILED)
        std::abort();
    for (std::uint32_t i = blocks; i-- > 0;) {
        auto** block = reinterpret_cast<void**>(base + i * stride + header);
        block[-1] = cls.head;
        block[0] = cls.head->freelist;
        cls.head->freelist = block;
    }
}

struct table {
    size_class* classes[class_count];
    table() {
        for (std::int32_t i = 0; i < class_count; ++i) {
            classes[i] = new size_class;
            fill(*classes[i], sizes[i]);
        }
    }
};

table& all() {
    static table built;
    return built;
}

size_class** const classes = all().classes;

}  // namespace

void* minimum_malloc(std::size_t size, std::size_t* outsize) {
    std::int32_t lo = 0;
    std::int32_t hi = class_count;
    while (lo < hi) {
        const std::int32_t mid = lo + (hi - lo) / 2;
        if (size > classes[mid]->blksize)
            lo = mid + 1;
        else
            hi = mid;
    }
    size_class* cls = classes[lo];
    pthread_spin_lock(&cls->lock);
    heap* from = cls->head;
    void** block = from->freelist;
    from->freelist = static_cast<void**>(*block);
    --from->freecount;
    --cls->freecount;
    if (outsize != nullptr)
        *outsize = cls->blksize;
    pthread_spin_unlock(&cls->lock);
    return block;
}

void minimum_free(void* p) {
    auto** block = static_cast<void**>(p);
    auto* to = static_cast<heap*>(block[-1]);
    size_class* cls = to->owner;
    pthread_spin_lock(&cls->lock);
    *block = to->freelist;
    to->freelist = block;
    ++to->freecount;
    ++cls->freecount;
    //  This test decides whether the heap is released. It is never true, because there is only one heap.
    if (cls->heapcount > 3 && to->freecount == to->blkcount && to != cls->head && cls->freecount != cls->blkperheap)
        std::abort();
    pthread_spin_unlock(&cls->lock);
}

}  // namespace bench
