//  A signal handler calls rdb_disconnect, rdb_destory and exit(0) while workers run, as the service does when a signal
//  ends it.
#include "open_fake_backend.h"

#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <new>
#include <sys/time.h>

//  exit runs the test program's destructors inside the handler. The thread sanitizer reports this, so these reports are
//  switched off.
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0";
}

namespace {

using namespace opentest;

int volatile handleToEnd = -1;
std::sig_atomic_t volatile ending = 0;

}  // namespace

#if defined(__has_feature)
#define HAS_FEATURE(name) __has_feature(name)
#else
#define HAS_FEATURE(name) 0
#endif

#if !defined(__SANITIZE_THREAD__) && !HAS_FEATURE(address_sanitizer)
//  The signal may have interrupted malloc. The destructors of the test program, such as those of googletest, would then
//  wait for ever in free. So nothing is freed after the handler has begun. The library itself frees nothing at exit.
//  Builds with a sanitizer use the sanitizer's allocator instead.
void* operator new(std::size_t size) {
    void* const memory = std::malloc(size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept {
    if (ending == 0)
        std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    operator delete(memory);
}
#endif

namespace {

void endProcess(int) {
    ending = 1;
    rdb_disconnect(handleToEnd);
    rdb_destory(handleToEnd);
    std::exit(0);
}

//  Raises SIGALRM once, after the given number of microseconds.
void interruptIn(int microseconds) {
    struct sigaction action {};
    action.sa_handler = endProcess;
    sigaction(SIGALRM, &action, nullptr);
    itimerval timer{};
    timer.it_value.tv_usec = microseconds;
    setitimer(ITIMER_REAL, &timer, nullptr);
}

//  Makes calls in an endless loop, so that the signal finds the workers in various states.
void work(int handle, int other) {
    const RdbSnapshot record = recordOf("t", "v");
    for (;;) {
        rdb_objputsnapshot(handle, &record, 1);
        rdb_callmsg(
            other, "message", 7, [](const char*, std::int32_t, void*) {}, nullptr);
        const int third = rdb_create();
        if (third >= 0)
            connectFake(third, std::make_shared<Script>());
        rdb_destory(third);
    }
}

class ExitInHandler : public testing::TestWithParam<int> {};

//  Starts this program again as a separate process, because threads do not survive a fork.
TEST_P(ExitInHandler, EndsTheProcessWithItsStatusWhileWorkersRun) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto busyService = [] {
        const auto script = std::make_shared<Script>();
        for (int i = 0; i < 1000; ++i) {
            script->opens.push_back(i % 2 == 0 ? rdbopen::Status{} : rdbopen::backendFailed("down"));
            script->requests.push_back(i % 3 == 0 ? rdbopen::backendFailed("broken") : rdbopen::Status{});
        }
        const int handle = rdb_create();
        connectFake(handle, script);
        const int other = rdb_create();
        connectFake(other, std::make_shared<Script>());
        handleToEnd = handle;
        interruptIn(GetParam());
        work(handle, other);
    };
    EXPECT_EXIT(busyService(), testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(AfterMicroseconds, ExitInHandler, testing::Values(50, 200, 800, 2000, 5000, 10000, 20000));

}  // namespace
