//  The end of the service: SIGINT and SIGTERM, and the code that they must not interrupt.
//
//      signal ----> the service's thread is at rest (it sleeps) ----------------------------------------> end
//              \--> it is in a step: the number is noted, the step goes on
//                       |--> before its next call of the client library, or when the step is over -------> end
//                       \--> it waits for more than max_step_ticks (for a server, for a reader of its
//                            output): at a tick at which no lock of the allocator is held ---------------> end
//
//  So the end never waits for a lock that the code beneath it holds: neither the allocator's own nor those of the C
//  library. What nobody can rule out, such as an exit function of a library that waits for ever, is cut off: a process
//  that is still there max_end_ticks after its end began is ended by _exit(0).
//
//  Ticks come from the process's real-time timer (setitimer(2)). It is started, and SIGALRM handled, by the first exit
//  signal; before that SIGALRM keeps its default action.
//
//  Threads: the end runs on the service's thread, the one that called installExitSignals. A signal that the system
//  delivers to another thread is passed on to it.
#ifndef SERVICE_EXITSIGNAL_H
#define SERVICE_EXITSIGNAL_H

//  Ticks of 10 ms. A process that gets no processor gets no ticks either, so a loaded machine cuts nothing off.
constexpr long tick_microseconds = 10'000;
constexpr int max_step_ticks = 5;       // a step's time to come to an end
constexpr int max_callback_ticks = 50;  // the time of callbacks on other threads, once the log is taken from them
constexpr int max_end_ticks = 150;      // the time of the whole end

//  Handles SIGINT and SIGTERM. The end reports the stop, releases the log, closes both connections and exits with status
//  0. Of several signals the first one counts.
void onExitSignal(int signal_number);

//  Makes the calling thread the service's, installs onExitSignal for both signals and unblocks them and SIGALRM.
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
