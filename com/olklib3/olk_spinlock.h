//  The lock of the allocator, which is the template parameter LOCK of its structures, and a guard that holds a lock
//  until the end of a scope.
//
//  A thread that waits for a spinlock does not sleep. A spinlock is usually held for a few dozen instructions; when a
//  structure grows or shrinks, it is also held during calls of mmap or munmap.
//
//  Threads: any thread may call lock and try_lock; only the holder may call unlock. A thread must not lock a spinlock
//  that it holds. So if a signal handler interrupts the holder and locks the same spinlock, it waits forever.
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

    //  Takes the lock if it is free. Returns true if it took the lock. Never waits.
    bool try_lock() { return pthread_spin_trylock(&lock_) == 0; }

private:
    pthread_spinlock_t lock_;
};

//  Holds a lock until the end of its scope. With a null lock it does nothing.
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
