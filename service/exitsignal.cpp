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
constinit std::atomic<int> ticks{0};                 // since the first exit signal, then since the end began
constinit std::atomic<int> callbacks{0};             // on other threads
constinit std::atomic<bool> in_step{false};
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

//  Disconnects and releases a connection.
void closeConnection(std::int32_t& handle) {
    if (handle < 0)
        return;
    rdb_disconnect(handle);
    rdb_destory(handle);
    handle = -1;
}

//  Waits until every callback on another thread that may still have the log's pointer is over. Each pause ends with the
//  next tick at the latest. A callback that is kept longer waits for a reader of the console, and uses the log no more.
void awaitCallbacks() {
    while (callbacks != 0 && ticking && ticks < max_callback_ticks)
        pause();
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

void onTick(int);

void startTicks() {
    if (ticking.exchange(true))
        return;
    const itimerval period = {{0, tick_microseconds}, {0, tick_microseconds}};
    if (signal(SIGALRM, onTick) == SIG_ERR || setitimer(ITIMER_REAL, &period, nullptr) != 0)
        ticking = false;
}

//  SIGALRM is unblocked because its own handler may have come here.
[[noreturn]] void endProcess() {
    ending = true;
    ticks = 0;
    startTicks();
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
    std::exit(0);
}

//  Without ticks there is no later moment, so a step that waits is not waited for.
bool stepGoesOn() {
    return in_step && ticking && (ticks < max_step_ticks || !olk::get_olk_alloctor_self()->unlocked());
}

void onTick(int) {
    const int saved = errno;
    if (!onServiceThread())
        pthread_kill(service_thread, SIGALRM);
    else if (++ticks >= max_end_ticks && ending)
        _exit(0);
    else if (!ending && !stepGoesOn())
        endProcess();
    errno = saved;
}

}  // namespace

void onExitSignal(int signal_number) {
    const int saved = errno;
    int none = 0;
    if (!onServiceThread()) {
        pthread_kill(service_thread, signal_number);
    } else if (!ending && pending_signal.compare_exchange_strong(none, signal_number)) {
        if (in_step)
            startTicks();
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
    unblock({SIGINT, SIGTERM, SIGALRM});
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
