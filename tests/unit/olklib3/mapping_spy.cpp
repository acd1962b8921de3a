#include "mapping_spy.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace spy {
namespace {

//  The constructor of the allocator uses these variables before any constructor of this file runs. So they are
//  initialised at load time, to zero.
constexpr size_t log_size = 1 << 16;
call log_of_calls[log_size];
size_t logged;
std::atomic<bool> recording;
std::atomic<bool> recording_locks;
mmap_request latest_mmap;

//  `skip` is the number of the first call that fails; the next call is 1, and 0 means that no call fails. `left` is the
//  number of calls that fail.
struct failure {
    size_t skip;
    size_t left;

    bool strikes() {
        if (skip == 0)
            return false;
        if (skip > 1) {
            --skip;
            return false;
        }
        if (left != watch::every && --left == 0)
            skip = 0;
        return true;
    }
};

failure mmap_failure;
failure munmap_failure;
std::atomic<size_t> told_page_size;
std::atomic<size_t> violations;
thread_local bool holds_object_heap;

void record(kind what, const void* address, size_t value) {
    if (logged == log_size)
        std::abort();
    log_of_calls[logged++] = call{what, address, value};
}

//  The type of a spinlock is a volatile word; only its address is needed here.
const void* address_of(pthread_spinlock_t* lock) {
    return const_cast<const int*>(lock);
}

void record_lock(kind what, pthread_spinlock_t* lock, size_t value = 0) {
    if (recording_locks.load(std::memory_order_relaxed))
        record(what, address_of(lock), value);
}

bool is_object_heap(pthread_spinlock_t* lock) {
    return address_of(lock) == static_cast<const void*>(&olk::get_olk_alloctor_self()->objheap.lock);
}

}  // namespace

watch::watch(scope what) {
    logged = 0;
    recording = true;
    recording_locks = what == scope::memory_and_locks;
}

watch::~watch() {
    recording = false;
    recording_locks = false;
    told_page_size = 0;
    stop_failing();
}

std::vector<call> watch::calls() const {
    return std::vector<call>(log_of_calls, log_of_calls + logged);
}

size_t watch::count(kind what) const {
    return lengths(what).size();
}

std::vector<size_t> watch::lengths(kind what) const {
    std::vector<size_t> found;
    for (const call& c : calls())
        if (c.what == what)
            found.push_back(c.value);
    return found;
}

std::vector<std::string> watch::trace() const {
    static const char* const words[] = {"sysconf", "mmap", "munmap", "init", "destroy", "lock", "unlock"};
    std::vector<std::string> lines;
    for (const call& c : calls()) {
        std::string line = words[static_cast<size_t>(c.what)];
        const auto known = names_.find(c.address);
        if (c.what == kind::mmap)
            line += " " + std::to_string(c.value) + (c.address == nullptr ? " failed" : "");
        else if (known != names_.end())
            line += " " + known->second;
        else if (c.what == kind::munmap)
            line += " " + std::to_string(c.value);
        lines.push_back(line);
    }
    return lines;
}

void watch::name(const void* address, const std::string& name) {
    names_[address] = name;
}

void watch::clear() {
    logged = 0;
}

void watch::fail_mmap(size_t nth, size_t how_many) {
    mmap_failure = failure{nth, how_many};
}

void watch::fail_munmap(size_t nth, size_t how_many) {
    munmap_failure = failure{nth, how_many};
}

void watch::stop_failing() {
    mmap_failure = failure{0, 0};
    munmap_failure = failure{0, 0};
}

void watch::page_size(size_t bytes) {
    told_page_size = bytes;
}

mmap_request last_mmap() {
    return latest_mmap;
}

size_t lock_order_violations() {
    return violations;
}

no_more_records::no_more_records() {
    watch nothing_left;
    nothing_left.fail_mmap(1);
    while (void* slot = olk::memheap_::operator new(56))
        taken_.push_back(slot);
}

no_more_records::~no_more_records() {
    for (void* slot : taken_)
        olk::memheap_::operator delete(slot);
}

}  // namespace spy

//  Linker names of the wrapped calls and of the real functions.
extern "C" {

void* __real_mmap(void* hint, size_t length, int prot, int flags, int fd, off_t offset);
int __real_munmap(void* address, size_t length);
long __real_sysconf(int name);
int __real_pthread_spin_init(pthread_spinlock_t* lock, int shared);
int __real_pthread_spin_destroy(pthread_spinlock_t* lock);
int __real_pthread_spin_lock(pthread_spinlock_t* lock);
int __real_pthread_spin_unlock(pthread_spinlock_t* lock);

void* __wrap_mmap(void* hint, size_t length, int prot, int flags, int fd, off_t offset) {
    if (!spy::recording.load(std::memory_order_relaxed))
        return __real_mmap(hint, length, prot, flags, fd, offset);
    spy::latest_mmap = spy::mmap_request{hint, prot, flags, fd, offset};
    void* mapping = MAP_FAILED;
    if (spy::mmap_failure.strikes())
        errno = ENOMEM;
    else
        mapping = __real_mmap(hint, length, prot, flags, fd, offset);
    spy::record(spy::kind::mmap, mapping == MAP_FAILED ? nullptr : mapping, length);
    return mapping;
}

int __wrap_munmap(void* address, size_t length) {
    if (spy::recording.load(std::memory_order_relaxed)) {
        spy::record(spy::kind::munmap, address, length);
        if (spy::munmap_failure.strikes()) {
            errno = ENOMEM;
            return -1;
        }
    }
    return __real_munmap(address, length);
}

long __wrap_sysconf(int name) {
    if (spy::recording.load(std::memory_order_relaxed)) {
        spy::record(spy::kind::sysconf, nullptr, static_cast<size_t>(name));
        if (name == _SC_PAGESIZE && spy::told_page_size != 0)
            return static_cast<long>(spy::told_page_size.load());
    }
    return __real_sysconf(name);
}

int __wrap_pthread_spin_init(pthread_spinlock_t* lock, int shared) {
    spy::record_lock(spy::kind::spin_init, lock, static_cast<size_t>(shared));
    return __real_pthread_spin_init(lock, shared);
}

int __wrap_pthread_spin_destroy(pthread_spinlock_t* lock) {
    spy::record_lock(spy::kind::spin_destroy, lock);
    return __real_pthread_spin_destroy(lock);
}

int __wrap_pthread_spin_lock(pthread_spinlock_t* lock) {
    if (spy::holds_object_heap)
        ++spy::violations;
    const int result = __real_pthread_spin_lock(lock);
    spy::record_lock(spy::kind::spin_lock, lock);
    if (spy::is_object_heap(lock))
        spy::holds_object_heap = true;
    return result;
}

int __wrap_pthread_spin_unlock(pthread_spinlock_t* lock) {
    if (spy::is_object_heap(lock))
        spy::holds_object_heap = false;
    spy::record_lock(spy::kind::spin_unlock, lock);
    return __real_pthread_spin_unlock(lock);
}

}  // extern "C"
