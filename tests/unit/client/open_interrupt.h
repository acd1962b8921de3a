//  A handle, and a signal handler that disconnects and destroys it on the thread that the signal interrupts.
#ifndef TESTS_UNIT_OPEN_INTERRUPT_H
#define TESTS_UNIT_OPEN_INTERRUPT_H

#include "rdbapi.h"

#include <atomic>
#include <csignal>
#include <sys/time.h>

namespace opentest {

inline std::atomic<int> interrupted{0};  // 1 after the handler has run
inline int volatile handleToEnd = -1;

inline void endHandle(int) {
    rdb_disconnect(handleToEnd);
    rdb_destory(handleToEnd);
    interrupted = 1;
}

//  Raises SIGALRM once, after the given number of microseconds.
inline void interruptIn(int microseconds) {
    interrupted = 0;
    struct sigaction action {};
    action.sa_handler = endHandle;
    sigaction(SIGALRM, &action, nullptr);
    itimerval timer{};
    timer.it_value = {microseconds / 1000000, microseconds % 1000000};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

inline void ignoreReply(const char*, std::int32_t, void*) {}
inline void ignoreEvent(std::int32_t, std::int64_t, void*) {}

}  // namespace opentest

#endif
