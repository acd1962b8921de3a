#include "exitsignal.h"

#include "daemon.h"
#include "olk_allocator.h"
#include "runcls.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

#include <pthread.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

//  The signal handlers share these variables with the code that they interrupt, mostly on the same thread. The accesses
//  must take place in program order. The compiler keeps this order, because all accesses have the default memory order.
constinit std::atomic<pthread_t> service_thread{0};  // 0 before installExitSignals
constinit std::atomic<int> pending_signal{0};        // number of the first exit signal; 0 before it
constinit std::atomic<int> ticks_left{0};            // ticks until the current wait ends
constinit std::atomic<int> callbacks{0};             // callbacks that run on other threads
constinit std::atomic<bool> in_step{false};
constinit std::atomic<bool> alarm_handled{false};
constinit std::atomic<bool> ticking{false};
constinit std::atomic<bool> ending{false};

static_assert(std::atomic<pthread_t>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

bool onServiceThread() {
    pthread_t none = 0;
    service_thread.compare_exchange_strong(none, pthread_self());
    return pthread_equal(service_thread, pthread_self()) != 0;
}

void unblock(std::initializer_list<int> numbers) {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : numbers)
        sigaddset(&set, number);
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

bool isBlocked(int number) {
    sigset_t mask;
    sigemptyset(&mask);
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, number) == 1;
}

void onTick(int);

//  Starts or restarts the timer. The first tick comes after a whole period. If no timer is available, there are no time
//  limits.
void setTicks(int count, long period) {
    const itimerval timer = {{0, period}, {0, period}};
    ticks_left = count;
    if (!alarm_handled)
        alarm_handled = signal(SIGALRM, onTick) != SIG_ERR;
    ticking = alarm_handled && setitimer(ITIMER_REAL, &timer, nullptr) == 0;
}

//  Disconnects and releases a connection.
void closeConnection(std::int32_t& handle) {
    if (handle < 0)
        return;
    setTicks(max_call_ticks, long_tick);
    rdb_disconnect(handle);
    setTicks(max_call_ticks, long_tick);
    rdb_destory(handle);
    handle = -1;
}

//  Waits until the callbacks on other threads that may still use the log have returned. Each pause ends at the next
//  tick at the latest. A callback that has not returned when the time limit expires is most likely blocked while it
//  writes to the console. After the write the callback does not access the log object.
void awaitCallbacks() {
    setTicks(max_callback_ticks + 1, short_tick);
    while (callbacks != 0 && ticking && ticks_left > 1)
        pause();
    setTicks(max_end_ticks, long_tick);
}

//  Clears the pointer before it releases the log, so that callbacks that start later find no log.
void stopApplication(CRunCls& run) {
    if (olk::ilog* log = run.log) {
        log->add(olk::level_inf, "stop addrpubd service success.");
        run.log = nullptr;
        std::atomic_thread_fence(std::memory_order_seq_cst);
        awaitCallbacks();
        log->release();
    }
    closeConnection(run.rdb_handle);
    closeConnection(run.dns_handle);
}

//  Unblocks SIGALRM, which is blocked if the handler of SIGALRM has called this function or if it was blocked before.
[[noreturn]] void endProcess() {
    ticks_left = max_end_ticks;
    ending = true;
    setTicks(max_end_ticks, long_tick);
    signal(SIGINT, SIG_IGN);
    signal(SIGTERM, SIG_IGN);
    unblock({SIGALRM});
    std::printf("exit signal %d.\n", pending_signal.load());
    if (g_pdaemon != nullptr) {
        if (g_pdaemon->application != nullptr)
            stopApplication(*g_pdaemon->application);
        g_pdaemon->application = nullptr;
        g_pdaemon = nullptr;
    }
    setTicks(max_end_ticks, long_tick);
    std::exit(0);
}

//  Returns true if the step may continue until a later tick or until its end. Without ticks a step could block forever,
//  so without ticks the process ends at once.
bool stepMayContinue() {
    return in_step && ticking && (ticks_left > 0 || !olk::get_olk_alloctor_self()->unlocked());
}

void onTick(int) {
    const int saved = errno;
    if (!onServiceThread()) {
        pthread_kill(service_thread, SIGALRM);
    } else {
        if (ticks_left > 0)
            --ticks_left;
        if (ending && ticks_left == 0)
            _exit(0);
        if (!ending && !stepMayContinue())
            endProcess();
    }
    errno = saved;
}

}  // namespace

void onExitSignal(int signal_number) {
    const int saved = errno;
    int none = 0;
    if (!onServiceThread()) {
        pthread_kill(service_thread, signal_number);
    } else if (!ending && pending_signal.compare_exchange_strong(none, signal_number)) {
        if (in_step && !isBlocked(SIGALRM))
            setTicks(max_step_ticks, short_tick);
        if (!stepMayContinue())
            endProcess();
    }
    errno = saved;
}

void installExitSignals() {
    service_thread = pthread_self();
    for (const int number : {SIGINT, SIGTERM})
        signal(number, onExitSignal);
    //  The program that started the service may have blocked these signals.
    unblock({SIGINT, SIGTERM});
}

ServiceStep::ServiceStep() noexcept {
    in_step = true;
}

ServiceStep::~ServiceStep() {
    in_step = false;
    endIfSignalled();
}

void endIfSignalled() {
    if (pending_signal != 0 && !ending)
        endProcess();
}

CallbackStep::CallbackStep() noexcept : counted(pthread_equal(service_thread, pthread_self()) == 0) {
    if (counted)
        ++callbacks;
}

CallbackStep::~CallbackStep() {
    if (counted)
        --callbacks;
}
