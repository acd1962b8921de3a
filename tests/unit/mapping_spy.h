//  Sees and spoils the calls that the allocator makes to the system: mmap, munmap, sysconf, mallopt and the spin locks.
//
//  The test program is linked with --wrap for each of them, so every call of the library passes through here and on to
//  the real function. While a watch lives, the calls are recorded; the watch may also make mappings fail or change the
//  page size that the library is told.
//
//  Threads: one watch at a time, and none while several threads use the allocator, except for the count of lock-order
//  violations, which every thread may add to.
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
    const void* address;  // the mapping (null when mmap failed) or the lock
    size_t value;         // bytes of a mapping, what sysconf was asked for, whether a spin lock is shared
};

//  What the last mmap asked for beside its length.
struct mmap_request {
    const void* hint;
    int prot;
    int flags;
    int fd;
    long offset;
};

enum class scope { memory, memory_and_locks };

//  Records from its construction to its destruction; the failures that it arms end with it.
class watch {
public:
    explicit watch(scope what = scope::memory);
    ~watch();
    watch(const watch&) = delete;
    watch& operator=(const watch&) = delete;

    std::vector<call> calls() const;
    size_t count(kind what) const;
    //  The lengths of the mappings made (failed ones too) or unmapped, in order.
    std::vector<size_t> lengths(kind what) const;
    //  The calls as text: "mmap 4096", "mmap 4096 failed", "munmap 4096", "sysconf", "lock NAME", "unlock NAME",
    //  "init NAME", "destroy NAME". A named mapping is "munmap NAME".
    std::vector<std::string> trace() const;
    //  Calls the object at address by name in the trace. A lock without a name is "lock".
    void name(const void* address, const std::string& name);
    //  Forgets what was recorded so far.
    void clear();

    static constexpr size_t every = SIZE_MAX;
    //  Makes how_many mappings fail, the nth from now (1 is the next) being the first.
    static void fail_mmap(size_t nth, size_t how_many = every);
    static void fail_munmap(size_t nth, size_t how_many = every);
    static void stop_failing();
    //  What the library is told when it asks for the page size; 0 is the truth.
    static void page_size(size_t bytes);

private:
    std::map<const void*, std::string> names_;
};

mmap_request last_mmap();

//  How many times a thread took a lock while it held the process-wide object heap's lock.
size_t lock_order_violations();

//  Takes every free slot of the process-wide object heap; gives them all back at its end.
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
