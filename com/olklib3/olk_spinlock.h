//  The lock that every structure of the library is parameterised with, and its scoped guard.
//
//  spinlock never sleeps: it is held for a few dozen instructions as a rule, and for the length of a few mmap or munmap
//  calls when a structure grows or shrinks.
//
//  Threads: lock and unlock may be called from any thread; a thread must not lock what it already holds. So a signal
//  handler that interrupted a holder and wants the same lock waits for ever.
#ifndef OLK_SPINLOCK_H
#define OLK_SPINLOCK_H

#include <pthread.h>

namespace olk {

class spinlock {
public:
    spinlock() { pthread_spin_init(&lock_, PTHREAD_PROCESS_PRIVATE); }
    ~spinlock() { pthread_spin_destroy(&lock_); }
    spinlock(const spinlock&) = delete;
    spinlock& operator=(const spinlock&) = delete;

    void lock() { pthread_spin_lock(&lock_); }
    void unlock() { pthread_spin_unlock(&lock_); }

    //  Takes the lock if it is free. Returns true when this call took it. Never waits.
    bool try_lock() { return pthread_spin_trylock(&lock_) == 0; }

private:
    pthread_spinlock_t lock_;
};

//  Holds a lock for the length of a scope. A null lock is accepted and nothing is locked.
template <class LOCK>
class scoped_lock_ {
public:
    explicit scoped_lock_(LOCK* lock) : lock_(lock) {
        if (lock_ != nullptr)
            lock_->lock();
    }
    ~scoped_lock_() {
        if (lock_ != nullptr)
            lock_->unlock();
    }
    scoped_lock_(const scoped_lock_&) = delete;
    scoped_lock_& operator=(const scoped_lock_&) = delete;

private:
    LOCK* const lock_;
};

}  // namespace olk

#endif
