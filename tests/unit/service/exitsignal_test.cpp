//  Tests of the exit signal in child processes, because the handler ends the process.
#include "exitsignal.h"

#include "daemon.h"
#include "olk_allocator.h"
#include "recording_rdb.h"
#include "runcls.h"
#include "service_child.h"
#include "service_platform.h"
#include "service_support.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

//  The handler deliberately logs, closes and exits inside the signal handler. The thread sanitizer reports this, so
//  that report is switched off.
extern "C" const char* __tsan_default_options();
const char* __tsan_default_options() {
    return "report_signal_unsafe=0";
}

//  For tests in which the thread sanitizer would wrongly report an error, or would deliver a signal later than it is
//  raised.
#ifdef __SANITIZE_THREAD__
#define SKIP_WITH_THREAD_SANITIZER() GTEST_SKIP() << "the thread sanitizer changes the behaviour of signals"
#else
#define SKIP_WITH_THREAD_SANITIZER() static_cast<void>(0)
#endif

namespace {

enum class Timer { real, none, driven };
Timer timer = Timer::real;  // driven: the test raises the timer's signals itself

//  Shortens long ticks. Only for tests that wait until the end of a time limit: with short ticks, a limit can expire
//  while a sanitizer or a loaded machine delays the exit.
bool shorten_ticks = false;

std::atomic<bool> in_pause{false};   // true from the first call of pause on
std::atomic<bool> pausing{false};    // true during each call of pause
std::atomic<bool> end_began{false};  // true after the service set the timer to long ticks

}  // namespace

extern "C" int __real_pause();
extern "C" int __wrap_pause();
int __wrap_pause() {
    in_pause = true;
    pausing = true;
    const int result = __real_pause();
    pausing = false;
    return result;
}

extern "C" int __real_setitimer(__itimer_which_t which, const itimerval* value, itimerval* old) noexcept;
extern "C" int __wrap_setitimer(__itimer_which_t which, const itimerval* value, itimerval* old) noexcept;

int __wrap_setitimer(__itimer_which_t which, const itimerval* value, itimerval* old) noexcept {
    itimerval shortened = *value;
    if (value->it_value.tv_usec > short_tick)
        end_began = true;
    if (shorten_ticks)
        shortened.it_value.tv_usec = std::min(shortened.it_value.tv_usec, short_tick);
    shortened.it_interval = shortened.it_value;
    if (timer == Timer::real)
        return __real_setitimer(which, &shortened, old);
    return timer == Timer::driven ? 0 : -1;
}

namespace {

//  A log that prints each record and its release. This shows their order among the calls of the client library.
class PrintingLog final : public olk::ilog {
public:
    ~PrintingLog() override;
    int open(const char*) override { return 0; }
    __attribute__((format(printf, 3, 4))) int add(int level, const char* format, ...) override;
    __attribute__((format(printf, 3, 4))) int append(int, const char*, ...) override { return 0; }
    int getlevel() override { return 0; }
    void setlevel(int) override {}
    void runtime() override {}
    void release() override { std::puts("release"); }
};

PrintingLog::~PrintingLog() = default;

int PrintingLog::add(int level, const char* format, ...) {
    std::printf("%d ", level);
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    return std::puts("");
}

//  Returns a new service with these handles and a log that prints, and stores it in g_daemon. The calls of its client
//  library are printed, too.
CRunCls& newService(int rdb_handle, int dns_handle) {
    static PrintingLog log;
    static CRunCls* run = nullptr;  // refers to the service until the process ends, so that it is not a leak
    run = new CRunCls;
    run->rdb_handle = rdb_handle;
    run->dns_handle = dns_handle;
    run->log = &log;
    g_daemon.application = run;
    recording_rdb::set_observer([](const recording_rdb::Call& call) {
        std::printf("%s %d\n", recording_rdb::name_of(call.function), call.handle);
    });
    return *run;
}

void blockAllSignals() {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);
}

//  A step that blocks for ever.
[[noreturn]] void waitForEver() {
    for (;;)
        pause();
}

class ExitSignal : public testing::Test {
protected:
    ExitSignal() {
        platform::reset();
        recording_rdb::reset();
    }
    //  Runs `body` in a child, which must print `out` and exit with status 0.
    static void expectEnd(const std::string& out, const std::function<void()>& body) {
        const Ended ended = inChild(body);
        EXPECT_EQ(ended.out, out);
        EXPECT_EQ(ended.status, 0);
    }
    //  Does the same. The child installs the handler of the two exit signals before it runs `body`.
    static void expectEndOfService(const std::string& out, const std::function<void()>& body) {
        expectEnd(out, [&] {
            installExitSignals();
            body();
        });
    }
};

TEST_F(ExitSignal, ReportsReleasesClosesBothConnectionsAndExitsWith0) {
    expectEnd("exit signal 15.\n"
              "30 stop addrpubd service success.\n"
              "release\n"
              "rdb_disconnect 4\nrdb_destory 4\nrdb_disconnect 5\nrdb_destory 5\n"
              "exit 1 1 1 -1 -1\n",
              [] {
                  static const CRunCls& run = newService(4, 5);
                  std::atexit([] {
                      std::printf("exit %d %d %d %d %d\n", g_daemon.application == nullptr, g_pdaemon == nullptr,
                                  run.log == nullptr, run.rdb_handle, run.dns_handle);
                  });
                  onExitSignal(15);
              });
}

TEST_F(ExitSignal, WithoutALogItOnlyClosesTheConnections) {
    expectEnd("exit signal 2.\nrdb_disconnect 0\nrdb_destory 0\nrdb_disconnect 1\nrdb_destory 1\n", [] {
        newService(0, 1).log = nullptr;
        onExitSignal(2);
    });
}

TEST_F(ExitSignal, ConnectionsThatDoNotExistAreNotClosed) {
    for (const auto& handles : {std::pair(-1, 7), std::pair(7, -1)})
        expectEnd("exit signal 2.\nrdb_disconnect 7\nrdb_destory 7\n", [=] {
            newService(handles.first, handles.second).log = nullptr;
            onExitSignal(2);
        });
}

TEST_F(ExitSignal, WithoutAServiceObjectItOnlyPrintsAndClearsAndExits) {
    expectEnd("exit signal 2.\nexit 1\n", [] {
        g_daemon.application = nullptr;
        std::atexit([] { std::printf("exit %d\n", g_pdaemon == nullptr); });
        onExitSignal(2);
    });
}

TEST_F(ExitSignal, WithoutADescriptorItOnlyPrintsAndExits) {
    expectEnd("exit signal 15.\n", [] {
        g_pdaemon = nullptr;
        onExitSignal(15);
    });
}

TEST_F(ExitSignal, ASecondSignalDoesNotInterruptTheFirst) {
    expectEndOfService("exit signal 15.\nnot interrupted\n", [] {
        std::atexit([] {
            std::raise(SIGINT);
            std::raise(SIGTERM);
            std::puts("not interrupted");
        });
        std::raise(SIGTERM);
    });
}

TEST_F(ExitSignal, ASecondSignalDuringTheShutdownIsIgnored) {
    expectEnd("exit signal 15.\nrdb_disconnect\nrdb_destory\n", [] {
        newService(3, -1).log = nullptr;
        recording_rdb::set_observer([](const recording_rdb::Call& call) {
            std::puts(recording_rdb::name_of(call.function));
            onExitSignal(2);
        });
        onExitSignal(15);
    });
}

TEST_F(ExitSignal, ASafePlaceDuringTheEndIsIgnored) {
    expectEndOfService("exit signal 15.\nthe end goes on\n", [] {
        std::atexit([] {
            endIfSignalled();
            std::puts("the end goes on");
        });
        std::raise(SIGTERM);
    });
}

TEST_F(ExitSignal, SignalsThatWereBlockedAtTheStartAreUnblocked) {
    expectEnd("exit signal 2.\n", [] {
        blockAllSignals();
        installExitSignals();
        std::raise(SIGINT);
    });
}

TEST_F(ExitSignal, TheExitClosesThePidFileAndKeepsItsText) {
    const TempFolder folder;
    const std::string path = folder.file("addrpubd.pid");
    expectEnd("exit signal 2.\n1\n", [&] {
        g_daemon.pid_fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        g_daemon.writePid();
        //  Registered after the exit function of daemon.cpp that closes the pid file, so it runs before that function.
        std::atexit([] { std::printf("%d\n", g_daemon.pid_fd >= 0); });
        onExitSignal(2);
    });
    EXPECT_EQ(holderOf(path), 0);
    EXPECT_NE(readFile(path), "");
}

TEST_F(ExitSignal, ClosingTwiceIsHarmless) {
    const Ended ended = inChild([] {
        g_daemon.pid_fd = dup(STDOUT_FILENO);
        g_daemon.closePidFile();
        const bool closed = g_daemon.pid_fd == -1;
        g_daemon.closePidFile();
        std::printf("%d%d", closed, g_daemon.pid_fd == -1);
    });
    EXPECT_EQ(ended.out, "11");
}

TEST_F(ExitSignal, DuringAStepItEndsTheProcessAfterTheStep) {
    SKIP_WITH_THREAD_SANITIZER();
    expectEndOfService("the step goes on\nexit signal 15.\n", [] {
        {
            const ServiceStep step;
            std::raise(SIGTERM);
            std::puts("the step goes on");
        }
        std::puts("never");
    });
}

TEST_F(ExitSignal, DuringAStepItEndsTheProcessAtTheNextSafePlace) {
    expectEndOfService("no signal yet\nexit signal 15.\n", [] {
        const ServiceStep step;
        endIfSignalled();
        std::puts("no signal yet");
        std::raise(SIGTERM);
        endIfSignalled();
        std::puts("never");
    });
}

TEST_F(ExitSignal, ABlockedStepIsInterrupted) {
    expectEndOfService("exit signal 2.\n", [] {
        const ServiceStep step;
        std::raise(SIGINT);
        waitForEver();
    });
}

//  Each call of pause() returns at the next tick.
TEST_F(ExitSignal, TheShutdownAfterABlockedStepHasATimeLimit) {
    const Ended ended = inChild([] {
        shorten_ticks = true;
        std::atexit(waitForEver);
        installExitSignals();
        const ServiceStep step;
        std::raise(SIGINT);
        waitForEver();
    });
    EXPECT_EQ(ended.status, 0);
}

TEST_F(ExitSignal, WithTheAlarmBlockedAStepIsInterruptedAtOnce) {
    expectEnd("exit signal 15.\n", [] {
        blockAllSignals();
        std::raise(SIGALRM);  // the program that started the service left an alarm blocked and pending
        installExitSignals();
        const ServiceStep step;
        std::raise(SIGTERM);
        std::puts("never");
    });
}

TEST_F(ExitSignal, ATickOnAnotherThreadIsForwarded) {
    expectEnd("exit signal 15.\n", [] {
        timer = Timer::driven;
        installExitSignals();
        const ServiceStep step;
        std::raise(SIGTERM);
        std::thread([] {
            while (!end_began) {
                pthread_kill(pthread_self(), SIGALRM);
                std::this_thread::yield();
            }
        }).detach();
        waitForEver();
    });
}

TEST_F(ExitSignal, AStepThatHoldsALockOfTheAllocatorIsNotInterrupted) {
    SKIP_WITH_THREAD_SANITIZER();
    expectEndOfService("still here\nexit signal 15.\n", [] {
        const ServiceStep step;
        olk::spinlock& lock = olk::get_olk_allocator()->classes[3]->lock;
        lock.lock();
        std::raise(SIGTERM);
        for (int i = 0; i < 2 * max_step_ticks; ++i)
            pause();
        std::puts("still here");
        lock.unlock();
        waitForEver();
    });
}

TEST_F(ExitSignal, WithoutATimerAStepIsInterruptedAtOnce) {
    expectEnd("exit signal 15.\n", [] {
        timer = Timer::none;
        installExitSignals();
        const ServiceStep step;
        std::raise(SIGTERM);
        std::puts("never");
    });
}

TEST_F(ExitSignal, OfTwoSignalsDuringAStepTheFirstIsReported) {
    expectEndOfService("exit signal 2.\n", [] {
        const ServiceStep step;
        std::raise(SIGINT);
        std::raise(SIGTERM);
    });
}

TEST_F(ExitSignal, DeliveredToAnotherThreadItIsForwarded) {
    SKIP_WITH_THREAD_SANITIZER();
    expectEndOfService("exit signal 15.\non its thread: 1\n", [] {
        static const pthread_t main_thread = pthread_self();
        std::atexit([] { std::printf("on its thread: %d\n", pthread_equal(main_thread, pthread_self()) != 0); });
        std::thread([] { onExitSignal(SIGTERM); }).detach();
        waitForEver();
    });
}

//  Calls `whileInUse` on another thread, in a callback that uses the log. Returns when the callback has begun. After
//  the callback the thread raises ticks until a tick has ended the pause. A tick that arrives just before the pause
//  does not end it.
void beginCallback(void (*whileInUse)()) {
    static std::atomic<bool> in_callback{false};
    std::thread([=] {
        {
            const CallbackStep step;
            in_callback = true;
            whileInUse();
        }
        do {
            std::raise(SIGALRM);
            poll(nullptr, 0, 1);
        } while (pausing);
    }).detach();
    while (!in_callback)
        std::this_thread::yield();
}

TEST_F(ExitSignal, TheLogIsReleasedAfterTheLastCallbackThatUsesIt) {
    expectEnd(
        "exit signal 15.\n30 stop addrpubd service success.\nthe callback ends, the pointer is gone: 1\nrelease\n", [] {
            static const CRunCls& run = newService(-1, -1);
            timer = Timer::driven;
            installExitSignals();
            beginCallback([] {
                while (!in_pause)
                    std::this_thread::yield();
                std::printf("the callback ends, the pointer is gone: %d\n", run.log == nullptr);
            });
            std::raise(SIGTERM);
        });
}

TEST_F(ExitSignal, ABlockedCallbackDoesNotPreventTheExit) {
    for (const Timer with : {Timer::real, Timer::none})
        expectEnd("exit signal 15.\n30 stop addrpubd service success.\nrelease\nrdb_disconnect 3\nrdb_destory 3\n",
                  [=] {
                      timer = with;
                      newService(3, -1);
                      installExitSignals();
                      beginCallback(waitForEver);
                      std::raise(SIGTERM);
                  });
}

TEST_F(ExitSignal, ACallbackThatTheSignalInterruptsIsNotAwaited) {
    expectEnd("exit signal 15.\n30 stop addrpubd service success.\nrelease\npaused: 0\n", [] {
        newService(-1, -1);
        std::atexit([] { std::printf("paused: %d\n", in_pause.load()); });
        installExitSignals();
        const CallbackStep step;
        std::raise(SIGTERM);
    });
}

TEST_F(ExitSignal, ABlockedExitFunctionDoesNotPreventTheExit) {
    const Ended ended = inChild([] {
        shorten_ticks = true;
        std::atexit(waitForEver);
        installExitSignals();
        std::raise(SIGTERM);
    });
    EXPECT_EQ(ended.status, 0);
}

//  Raises ticks while a function of the client library runs.
void tickInTheLibrary(int count) {
    sigset_t alarm_signal;
    sigemptyset(&alarm_signal);
    sigaddset(&alarm_signal, SIGALRM);
    pthread_sigmask(SIG_UNBLOCK, &alarm_signal, nullptr);
    for (int i = 0; i < count; ++i)
        std::raise(SIGALRM);
}

//  Runs the shutdown of a service. Each call of its client library takes this number of ticks.
void endWithASlowLibrary(int ticks_of_a_call) {
    timer = Timer::driven;
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    newService(4, 5).log = nullptr;
    recording_rdb::set_observer([=](const recording_rdb::Call& call) {
        std::printf("%s %d\n", recording_rdb::name_of(call.function), call.handle);
        tickInTheLibrary(ticks_of_a_call);
    });
    installExitSignals();
    std::raise(SIGTERM);
}

TEST_F(ExitSignal, EachCallOfTheLibraryHasItsOwnTimeLimit) {
    static_assert(max_call_ticks - 1 > max_end_ticks);
    expectEnd("exit signal 15.\nrdb_disconnect 4\nrdb_destory 4\nrdb_disconnect 5\nrdb_destory 5\n",
              [] { endWithASlowLibrary(max_call_ticks - 1); });
}

TEST_F(ExitSignal, ACallOfTheLibraryBeyondItsTimeLimitEndsTheProcess) {
    expectEnd("exit signal 15.\nrdb_disconnect 4\n", [] { endWithASlowLibrary(max_call_ticks); });
}

TEST_F(ExitSignal, AfterASignalTheCycleDoesNotCallTheLibrary) {
    SKIP_WITH_THREAD_SANITIZER();
    expectEndOfService("the cycle goes on\nexit signal 15.\nrdb_disconnect 4\nrdb_destory 4\n", [] {
        CRunCls& run = newService(4, -1);
        run.log = nullptr;
        run.rdb_connected = 1;
        platform::hooks().nanosleep = [](const timespec*) { return 0; };
        platform::hooks().getifaddrs = [](ifaddrs**) {
            std::raise(SIGTERM);
            std::puts("the cycle goes on");
            return -1;
        };
        run.publishOnce();
        std::puts("never");
    });
}

}  // namespace
