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

//  Shared by the handlers and the code that they interrupt, mostly on one thread: what counts there is the order in the
//  program, which the compiler keeps because every access is one of the default order.
constinit std::atomic<pthread_t> service_thread{0};  // 0 before installExitSignals
constinit std::atomic<int> pending_signal{0};        // the first exit signal; 0 while none has come
constinit std::atomic<int> ticks_left{0};            // of what is waited for now
constinit std::atomic<int> callbacks{0};             // on other threads
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

//  Ticks come from now on, the first one after a whole period. Without a timer there are no ticks and no limits.
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

//  Waits until every callback on another thread that may still have the log's pointer is over. Each pause ends with the
//  next tick at the latest. A callback that is still running then is blocked in writing to the console; after that it does
//  not touch the log object.
void awaitCallbacks() {
    setTicks(max_callback_ticks + 1, short_tick);
    while (callbacks != 0 && ticking && ticks_left > 1)
        pause();
    setTicks(max_end_ticks, long_tick);
}

//  The pointer is cleared before the log goes, so that a callback that begins from now on finds none.
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

//  SIGALRM is unblocked because its own handler may have come here.
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

//  Without ticks there is no later moment, so a step that waits is not waited for.
bool stepGoesOn() {
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
        if (!ending && !stepGoesOn())
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
        if (!stepGoesOn())
            endProcess();
    }
    errno = saved;
}

void installExitSignals() {
    service_thread = pthread_self();
    for (const int number : {SIGINT, SIGTERM})
        signal(number, onExitSignal);
    //  A mask inherited from whoever started the program would keep them away.
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
