//  Records these calls of the allocator: mmap, munmap, sysconf, and init, destroy, lock and unlock of its spinlocks.
//
//  The test program is linked with --wrap for each of these functions, so all calls of the library reach this file
//  first. While a watch exists, the calls are recorded; those of the spinlocks only with scope::memory_and_locks. A
//  watch can also make mappings and unmappings fail or change the reported page size.
//
//  Threads: at most one watch exists at a time, and only while a single thread uses the allocator. Any thread may count
//  lock-order violations.
#ifndef MAPPING_SPY_H
#define MAPPING_SPY_H

#include "olk_allocator.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace spy {

enum class kind : uint8_t { sysconf, mmap, munmap, spin_init, spin_destroy, spin_lock, spin_unlock };

struct call {
    kind what;
    const void* address;  // the mapping (null if mmap failed) or the lock
    size_t value;         // length of a mapping, name passed to sysconf, or whether a spinlock is shared
};

//  The other arguments of the last mmap while a watch existed.
struct mmap_request {
    const void* hint;
    int prot;
    int flags;
    int fd;
    long offset;
};

enum class scope { memory, memory_and_locks };

//  Records calls while it exists. Failures that it set up end when it is destroyed.
class watch {
public:
    explicit watch(scope what = scope::memory);
    ~watch();
    watch(const watch&) = delete;
    watch& operator=(const watch&) = delete;

    std::vector<call> calls() const;
    size_t count(kind what) const;
    //  Returns the values of the calls of one kind, in order. For mmap and munmap these are the lengths, also those of
    //  calls that failed.
    std::vector<size_t> lengths(kind what) const;
    //  Returns the calls as text: "mmap 4096", "mmap 4096 failed", "munmap 4096", "sysconf", "lock NAME", "unlock
    //  NAME", "init NAME", "destroy NAME". If the mapping has a name, unmapping it is "munmap NAME".
    std::vector<std::string> trace() const;
    //  Sets the name of the object at address in the trace. Without a name the line of a lock is only "lock", "unlock",
    //  "init" or "destroy".
    void name(const void* address, const std::string& name);
    //  Discards the recorded calls.
    void clear();

    static constexpr size_t every = SIZE_MAX;
    //  Makes `how_many` mappings in a row fail. The first of them is mapping number `nth`; 1 is the next one.
    static void fail_mmap(size_t nth, size_t how_many = every);
    static void fail_munmap(size_t nth, size_t how_many = every);
    static void stop_failing();
    //  Sets the page size that is reported to the library; 0 restores the real size.
    static void page_size(size_t bytes);

private:
    std::map<const void*, std::string> names_;
};

mmap_request last_mmap();

//  Returns how often a thread took a lock while it held the lock of the process-wide object heap.
size_t lock_order_violations();

//  Takes all free slots of the process-wide object heap; its destructor frees them.
class no_more_records {
public:
    no_more_records();
    ~no_more_records();
    no_more_records(const no_more_records&) = delete;
    no_more_records& operator=(const no_more_records&) = delete;

private:
    std::vector<void*> taken_;
};

}  // namespace spy

#endif
