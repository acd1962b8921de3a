//  The end of the service: SIGINT and SIGTERM, and the code that they must not interrupt.
//
//      signal ----> (1) the service's thread is at rest (it sleeps) -----------------------------------> end
//              \--> it is in a step: the number is kept, the step goes on
//                       |--> (2) before its next call of the client library, or when the step is over -> end
//                       \--> (3) it waits for longer than max_step_ticks, for a server or for a reader
//                                of its output: at a tick at which no lock of the allocator is held ---> end
//
//  On the first two ways the service's thread holds no lock at all. On the third it may hold one of the C library or of the
//  client library, but none of the allocator.
//
//  Each part of the end has a limit. A process that exceeds it, such as one whose console nobody reads or whose library
//  waits for ever in an exit function, is ended by _exit(0).
//
//  Limits are counted in ticks of the real-time timer (setitimer(2)): a process that gets no processor gets no ticks, so a
//  loaded machine cuts nothing off. The first exit signal starts the timer and handles SIGALRM, whose action it leaves
//  alone before. Started with SIGALRM blocked, the service does not wait for steps (3).
//
//  Threads: the end runs on the service's thread, the one that called installExitSignals. A signal that the system
//  delivers to another thread is passed on to it.
#ifndef SERVICE_EXITSIGNAL_H
#define SERVICE_EXITSIGNAL_H

//  Microseconds between two ticks: while a step or a callback is waited for, and in the rest of the end, where a library's
//  own waits should not be interrupted often.
constexpr long short_tick = 10'000;
constexpr long long_tick = 500'000;

constexpr int max_step_ticks = 5;       // short; for a step to come to an end
constexpr int max_callback_ticks = 50;  // short; for callbacks on other threads, once the log is taken from them
constexpr int max_call_ticks = 10;      // long; for one call of the client library
constexpr int max_end_ticks = 3;        // long; for every other part of the end

//  Handles SIGINT and SIGTERM. The end reports the stop, releases the log, closes both connections and exits with status
//  0. Of several signals the first one counts.
void onExitSignal(int signal_number);

//  Makes the calling thread the service's, installs onExitSignal for both signals and unblocks them.
void installExitSignals();

//  A step of the service's thread. Does not nest.
class ServiceStep {
public:
    ServiceStep() noexcept;
    //  Ends the process if an exit signal came during the step.
    ~ServiceStep();
    ServiceStep(const ServiceStep&) = delete;
    ServiceStep& operator=(const ServiceStep&) = delete;
};

//  Ends the process if an exit signal has come. Called within a step, where the service's thread holds nothing.
void endIfSignalled();

//  A callback of the client library: on another thread than the service's, the end waits for it before it destroys the
//  log. Made before the callback reads the log's pointer.
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
