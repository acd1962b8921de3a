//  A condition variable whose waits have a deadline on the monotonic clock. It is initialised at compile time and has
//  no destructor, so a static object stays valid for threads that still wait for it at exit.
#ifndef RDBAPI_OPEN_ENGINE_TIMED_CONDITION_H
#define RDBAPI_OPEN_ENGINE_TIMED_CONDITION_H

#include <chrono>
#include <mutex>
#include <pthread.h>

namespace rdbopen {

class TimedCondition {
public:
    //  Waits for notifyAll, or until monotonicNow() reaches the time limit. Returns false after the time limit. May
    //  return early without a notification (spurious wake-up).
    //  Requires: lock is locked.
    bool waitUntil(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds until) noexcept {
        const timespec deadline{until.count() / 1000, until.count() % 1000 * 1000000};
        return pthread_cond_clockwait(&condition_, lock.mutex()->native_handle(), CLOCK_MONOTONIC, &deadline) == 0;
    }

    void notifyAll() noexcept { pthread_cond_broadcast(&condition_); }

private:
    pthread_cond_t condition_ = PTHREAD_COND_INITIALIZER;
};

}  // namespace rdbopen

#endif
