//  exit(0) in a signal handler behind rdb_disconnect and rdb_destory, while workers still run: how the service ends.
#include "open_fake_backend.h"

#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/time.h>

//  exit runs the test program's own destructors inside the handler; the thread sanitizer need not report each of them.
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0";
}

namespace {

using namespace opentest;

int volatile handleToEnd = -1;

void endProcess(int) {
    rdb_disconnect(handleToEnd);
    rdb_destory(handleToEnd);
    std::exit(0);
}

//  Raises SIGALRM once in the given number of microseconds.
void interruptIn(int microseconds) {
    struct sigaction action {};
    action.sa_handler = endProcess;
    sigaction(SIGALRM, &action, nullptr);
    itimerval timer{};
    timer.it_value.tv_usec = microseconds;
    setitimer(ITIMER_REAL, &timer, nullptr);
}

//  Calls without end; the workers are in every state meanwhile.
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

//  The process of its own comes out of a fresh start of this program, since threads do not survive a fork.
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
