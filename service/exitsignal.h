//  The shutdown of the service by SIGINT or SIGTERM, and the protection of code that these signals must not interrupt.
//
//  When the signal arrives, the service's thread is between two cycles or in a step, which is a cycle:
//      (1) Between two cycles, the handler ends the process at once.
//      (2) In a step, the handler stores the signal's number, and the step continues. The process ends before the next
//          call of the client library in this step, or when the step is over.
//      (3) If a step reaches neither place within max_step_ticks, for example because a server or a reader of the
//          output blocks it, the process ends at the first tick at which all locks of the allocator are free.
//
//  In cases (1) and (2) the service's thread holds no lock. In case (3) it may hold a lock of the C library or of the
//  client library, but none of the allocator.
//
//  Each part of the shutdown has a time limit. If a part exceeds its limit, for example because no program reads the
//  console output or because a library hangs in an exit function, _exit(0) ends the process. After the limit of the
//  wait for callbacks, however, the shutdown continues.
//
//  Time limits are counted in ticks of the real-time timer (setitimer(2)). A process that gets no processor time gets
//  no ticks, so the limits do not expire early on a loaded machine. The first exit signal starts the timer and installs
//  the handler of SIGALRM. Before that, the service does not change the action of SIGALRM. If SIGALRM is blocked when
//  an exit signal arrives, a step gets no ticks, so the signal ends the process at once; the shutdown itself unblocks
//  SIGALRM. If no timer is available, a step ends at once, callbacks are not awaited, and the rest has no time limits.
//
//  Threads: the shutdown runs on the service's thread, which is the thread that called installExitSignals. An exit
//  signal that is delivered to another thread is forwarded to the service's thread.
#ifndef SERVICE_EXITSIGNAL_H
#define SERVICE_EXITSIGNAL_H

//  Period of the timer in microseconds: short_tick while waiting for a step or a callback, long_tick for the rest of
//  the shutdown. The longer period interrupts the waits inside a library less often.
constexpr long short_tick = 10'000;
constexpr long long_tick = 500'000;

constexpr int max_step_ticks = 5;       // short ticks after which a step is interrupted, see (3)
constexpr int max_callback_ticks = 50;  // short ticks for callbacks on other threads to return
constexpr int max_call_ticks = 10;      // long ticks for one call of the client library
constexpr int max_end_ticks = 3;        // long ticks for every other part of the shutdown

//  Handles SIGINT and SIGTERM: prints the signal's number, logs the stop, releases the log, closes both connections and
//  exits with status 0. If the signal interrupts a step, this happens later, as shown above. Only the first signal has
//  an effect.
void onExitSignal(int signal_number);

//  Makes the calling thread the service's thread, installs onExitSignal for both signals and unblocks them.
void installExitSignals();

//  A scope in which an exit signal is deferred. Scopes must not be nested.
class ServiceStep {
public:
    ServiceStep() noexcept;
    //  Ends the process if an exit signal arrived during the step.
    ~ServiceStep();
    ServiceStep(const ServiceStep&) = delete;
    ServiceStep& operator=(const ServiceStep&) = delete;
};

//  Ends the process if an exit signal has arrived. Must be called in a step, at a place where the thread holds no lock.
void endIfSignalled();

//  The scope of a callback of the client library. If the callback runs on a thread other than the service's thread, the
//  shutdown waits for the end of the callback, at most max_callback_ticks, and then destroys the log. The callback must
//  create the object before it reads the pointer to the log.
class CallbackStep {
public:
    CallbackStep() noexcept;
    ~CallbackStep();
    CallbackStep(const CallbackStep&) = delete;
    CallbackStep& operator=(const CallbackStep&) = delete;

private:
    const bool counted;
};

#endif
