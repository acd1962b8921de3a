#include "open_syslog.h"
#include "open_worker_fixture.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>

using namespace opentest;

extern "C" {

void* __real__Znwm(std::size_t size);
void* __wrap__Znwm(std::size_t size) {
    return failNew ? throw std::bad_alloc() : __real__Znwm(size);
}

int __real_poll(pollfd* descriptors, nfds_t count, int timeout);
int __wrap_poll(pollfd* descriptors, nfds_t count, int timeout) {
    if (failPolls > 0) {
        --failPolls;
        errno = ENOMEM;
        return -1;
    }
    if (timeout < 0 || !skipBackoff || timeout > maxSkippedWait) {
        workerWaits = timeout != 0;
        const int ready = __real_poll(descriptors, count, timeout);
        workerWaits = false;
        return ready;
    }
    const int ready = __real_poll(descriptors, count, 0);
    if (ready == 0)  // otherwise a wake-up or input has ended the wait before its time limit
        pauses.put(timeout);
    return ready;
}

ssize_t __wrap_getrandom(void* bytes, size_t length, unsigned) {
    const std::uint32_t number = randomNumber;
    std::memcpy(bytes, &number, std::min(length, sizeof number));
    return static_cast<ssize_t>(length);
}

int __wrap_malloc_trim(std::size_t) {
    static std::atomic<int> running{0};
    if (++running > 1)
        trimsOverlapped = true;
    for (int i = 0; i < 20; ++i)
        sched_yield();
    --running;
    ++trims;
    return 0;
}

int __real_nanosleep(const timespec* time, timespec* left);
int __wrap_nanosleep(const timespec* time, timespec* left) {
    if (time->tv_sec == 0)
        return __real_nanosleep(time, left);
    ++longSleeps;
    return 0;
}

//  Only clockAhead changes the monotonic clock, so that each pause is recorded with its intended length.
int __real_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    if (clock != CLOCK_MONOTONIC)
        return __real_clock_gettime(clock, now);
    static const timespec start = [] {
        timespec first{};
        __real_clock_gettime(CLOCK_MONOTONIC, &first);
        return first;
    }();
    *now = {start.tv_sec + clockAhead, start.tv_nsec};
    return 0;
}

//  Waits on the real clock, for the intended time and at most a second more. While expireWaits is true, the wait times
//  out at once, or as soon as expireWhen returns true.
int __real_pthread_cond_clockwait(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*);
int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline) {
    timespec now{};
    clock_gettime(clock, &now);
    waitLimit = (deadline->tv_sec - now.tv_sec) * 1000 + (deadline->tv_nsec - now.tv_nsec) / 1000000;
    timespec end{};
    __real_clock_gettime(clock, &end);
    end.tv_sec += waitLimit / 1000 + 1;
    if (!expireWaits)
        return __real_pthread_cond_clockwait(condition, mutex, clock, &end);
    if (expireWhen) {
        pthread_mutex_unlock(mutex);
        eventually(expireWhen);
        pthread_mutex_lock(mutex);
    }
    return ETIMEDOUT;
}

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*), void* argument) {
    return failThreads ? EAGAIN : __real_pthread_create(thread, attributes, run, argument);
}

ssize_t __wrap_sendto(int, const void* bytes, size_t length, int, const sockaddr*, socklen_t) {
    if (loseLines > 0) {
        --loseLines;
        return -1;
    }
    reports.put(syslogLineOf(bytes, length).text);
    return static_cast<ssize_t>(length);
}
}
