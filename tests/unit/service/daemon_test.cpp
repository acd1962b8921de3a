//  The single-instance check, the foreground run up to its first passes, the pid file's claim and the usage text. Each
//  run is a child process with its own pid file, ini file and client library.
#include "daemon.h"
#include "exitsignal.h"

#include "no_memory.h"
#include "recording_rdb.h"
#include "runcls.h"
#include "service_child.h"
#include "service_platform.h"
#include "service_support.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

constexpr char no_access[] = "Access Error! Please use root account!\n";

class Daemon : public testing::Test {
protected:
    Daemon() {
        platform::reset();
        recording_rdb::reset();
        std::snprintf(g_daemon.pid_path, sizeof g_daemon.pid_path, "%s", pidPath.c_str());
        std::snprintf(g_daemon.service_name, sizeof g_daemon.service_name, "addrpubd");
        std::snprintf(g_daemon.version, sizeof g_daemon.version, "ver 1.0.4 build 2025-4-11");
        platform::hooks().readlink = [this](const char*, char* target, std::size_t) {
            const std::string program = folder.file("addrpubd");
            std::memcpy(target, program.data(), program.size());
            return static_cast<ssize_t>(program.size());
        };
        writeFile(folder.file("addrpubd.ini"), "hostname=h\n");
    }
    ~Daemon() override { platform::reset(); }

    //  Runs the foreground service in a child. In its first pass the child calls `look` and exits with status 7.
    Ended runUntilFirstPass(const std::function<void()>& look = [] {}) const {
        return inChild([&] {
            platform::hooks().nanosleep = [&](const timespec*) -> int {
                look();
                std::fflush(stdout);
                _exit(7);
            };
            g_daemon.runConsole();
        });
    }

    const TempFolder folder;
    const std::string pidPath = folder.file("addrpubd.pid");
};

using RunConsole = Daemon;
using SingleInstance = Daemon;
using Usage = Daemon;
using WritePid = Daemon;

TEST_F(RunConsole, PrintsSuccessAndAnEmptyLineAndEntersTheCycle) {
    const Ended ended = runUntilFirstPass();
    EXPECT_EQ(ended.out, "Start success!\n\n");
    EXPECT_EQ(ended.status, 7);
}

TEST_F(RunConsole, HoldsTheLockAndWritesItsPid) {
    const Ended ended = runUntilFirstPass([this] {
        const bool held = holderOf(pidPath) == getpid();
        std::printf("%d %d", held, readFile(pidPath) == std::to_string(getpid()) + "\n");
    });
    EXPECT_EQ(ended.out, "Start success!\n\n1 1");
}

TEST_F(RunConsole, CopiesThePathIntoTheWorkingPathAndKeepsTheObject) {
    const Ended ended = runUntilFirstPass([] {
        std::printf("%d %d %d", std::strcmp(g_daemon.pid_work_path, g_daemon.pid_path), g_daemon.application != nullptr,
                    g_daemon.pid_fd > 2);
    });
    EXPECT_EQ(ended.out, "Start success!\n\n0 1 1");
}

TEST_F(RunConsole, InstallsTheHandlerForBothSignals) {
    const Ended ended = runUntilFirstPass([] {
        for (const int number : {SIGINT, SIGTERM, SIGHUP})
            std::printf("%d", std::signal(number, SIG_DFL) == onExitSignal);
    });
    EXPECT_EQ(ended.out, "Start success!\n\n110");
}

TEST_F(RunConsole, KeepsSessionDirectoryAndUmask) {
    const mode_t mask = umask(0);
    umask(mask);
    const pid_t session = getsid(0);
    char before[512] = {};
    ASSERT_NE(getcwd(before, sizeof before), nullptr);
    const Ended ended = runUntilFirstPass([&] {
        char now[512] = {};
        std::printf("%d%d%d", getsid(0) == session, getcwd(now, sizeof now) && std::strcmp(now, before) == 0,
                    umask(0) == mask);
    });
    EXPECT_EQ(ended.out, "Start success!\n\n111");
}

TEST_F(RunConsole, MakesAThousandPassesWithoutReturning) {
    const Ended ended = inChild([] {
        int passes = 0;
        platform::hooks().nanosleep = [&](const timespec*) {
            if (++passes == 1000)
                _exit(7);
            return 0;
        };
        g_daemon.runConsole();
    });
    EXPECT_EQ(ended.status, 7);
}

TEST_F(RunConsole, ClaimsTheFileTwice) {
    const Ended ended = inChild([] {
        int claims = 0;
        platform::hooks().fcntl = [&](int fd, int command, void* argument) {
            claims += command == F_SETLKW;
            return platform::real_fcntl(fd, command, argument);
        };
        platform::hooks().nanosleep = [&](const timespec*) -> int {
            std::printf("%d claims", claims);
            std::fflush(stdout);
            _exit(7);
        };
        g_daemon.runConsole();
    });
    EXPECT_EQ(ended.out, "Start success!\n\n2 claims");
}

TEST_F(RunConsole, AFailedStartIsReportedAndReturns) {
    writeFile(folder.file("addrpubd.ini"), "");
    const Ended ended = inChild([] {
        g_daemon.runConsole();
        std::printf("returned %d", g_daemon.application != nullptr);
    });
    EXPECT_EQ(ended.out, "Start failed!\nreturned 0");
    EXPECT_EQ(ended.status, 99);
    EXPECT_EQ(holderOf(pidPath), 0);
}

TEST_F(RunConsole, WithoutMemoryForTheServiceObjectTheStartFails) {
    const Ended ended = inChild([] {
        const NoMemory refused(sizeof(CRunCls));
        g_daemon.runConsole();
        std::printf("returned %d", g_daemon.application != nullptr);
    });
    EXPECT_EQ(ended.out, "Start failed!\nreturned 0");
    EXPECT_EQ(ended.status, 99);
}

TEST_F(RunConsole, EventsAfterAFailedStartAreNotLogged) {
    writeFile(folder.file("addrpubd.ini"), "hostname=h\nlogurl=stdout\nrdburl=a\nrdbuser=b\nrdbpswd=c\n"
                                           "dnsurl=d\ndnsuser=e\ndnspswd=f\n");
    recording_rdb::script_result(recording_rdb::Function::connectex, 1, 5);
    const Ended ended = inChild([] {
        g_daemon.runConsole();
        std::printf("%d", recording_rdb::fire_event(0, 60001));
    });
    EXPECT_TRUE(ended.out.ends_with("Start failed!\n1")) << ended.out;
}

TEST_F(RunConsole, AMissingIniFileIsReportedBeforeTheFailure) {
    unlink(folder.file("addrpubd.ini").c_str());
    const Ended ended = inChild([] { g_daemon.runConsole(); });
    EXPECT_EQ(ended.out, "Load " + folder.file("addrpubd.ini") + " failed.\nStart failed!\n");
}

TEST_F(SingleInstance, AStaleFileIsOverwritten) {
    writeFile(pidPath, "123456789\n");
    const Ended ended = runUntilFirstPass([this] { std::printf("%zu", readFile(pidPath).size()); });
    EXPECT_TRUE(ended.out.starts_with("Start success!\n\n")) << ended.out;
    EXPECT_NE(readFile(pidPath), "123456789\n");
}

TEST_F(SingleInstance, AnotherHolderIsReportedAndTheFileIsUnchanged) {
    const LockHolder other(pidPath);
    writeFile(pidPath, "999999\n");
    const Ended ended = inChild([] { g_daemon.runConsole(); });
    EXPECT_EQ(ended.out, "addrpubd alreay runging! pid = " + std::to_string(other.pid()) + "\n");
    EXPECT_EQ(ended.status, 99);
    EXPECT_EQ(readFile(pidPath), "999999\n");
}

TEST_F(SingleInstance, TheServicesOwnNameIsInTheMessage) {
    const LockHolder other(pidPath);
    const Ended ended = inChild([] {
        std::snprintf(g_daemon.service_name, sizeof g_daemon.service_name, "other");
        g_daemon.runConsole();
    });
    EXPECT_EQ(ended.out, "other alreay runging! pid = " + std::to_string(other.pid()) + "\n");
}

//  If another process holds the lock, or if the pid file cannot be opened, the background start prints the same text as
//  the foreground start, and does not fork.
TEST_F(SingleInstance, TheBackgroundStartMakesTheSameDecision) {
    const LockHolder other(pidPath);
    const Ended held = inChild([] { std::printf("%d", g_daemon.start()); });
    EXPECT_EQ(held.out, "addrpubd alreay runging! pid = " + std::to_string(other.pid()) + "\n0");
    const Ended refused = inChild([] {
        platform::hooks().open = [](const char*, int, mode_t) { return -1; };
        std::printf("%d", g_daemon.start());
    });
    EXPECT_EQ(refused.out, no_access + std::string("1"));
}

TEST_F(SingleInstance, AHolderWithoutAProcessIsAnAccessErrorWhateverTheFileContains) {
    writeFile(pidPath, "4321\n");
    const Ended ended = inChild([this] {
        const int fd = open(pidPath.c_str(), O_RDWR | O_CLOEXEC);
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        platform::real_fcntl(fd, F_OFD_SETLK, &lock);
        g_daemon.runConsole();
    });
    EXPECT_EQ(ended.out, no_access);
    EXPECT_EQ(readFile(pidPath), "4321\n");
}

TEST_F(SingleInstance, APidOfMinus7IdentifiesAHolder) {
    const Ended ended = inChild([] {
        platform::hooks().fcntl = [](int fd, int command, void* argument) {
            if (command != F_GETLK)
                return platform::real_fcntl(fd, command, argument);
            static_cast<struct flock*>(argument)->l_pid = -7;
            return 0;
        };
        g_daemon.runConsole();
    });
    EXPECT_EQ(ended.out, "addrpubd alreay runging! pid = -7\n");
}

TEST_F(SingleInstance, AFailedCallOnThePidFileIsAnAccessError) {
    const std::function<void()> failures[] = {
        [] { platform::hooks().open = [](const char*, int, mode_t) { return -1; }; },
        [] { platform::hooks().fcntl = [](int, int, void*) { return -1; }; },
        [] {
            platform::hooks().fcntl = [](int fd, int command, void* argument) {
                return command == F_SETLKW ? -1 : platform::real_fcntl(fd, command, argument);
            };
        },
        [] { platform::hooks().ftruncate = [](int, off_t) { return -1; }; },
        [] { platform::hooks().write = [](int, const void*, std::size_t) { return -1; }; },
        [] { platform::hooks().write = [](int, const void*, std::size_t) { return 0; }; },
    };
    for (const auto& spoil : failures) {
        const Ended ended = inChild([&] {
            spoil();
            g_daemon.runConsole();
            platform::hooks().write = nullptr;
        });
        EXPECT_EQ(ended.out, no_access);
        EXPECT_EQ(ended.status, 99);
    }
}

TEST_F(SingleInstance, AMissingFolderIsAnAccessError) {
    const Ended ended = inChild([this] {
        std::snprintf(g_daemon.pid_path, sizeof g_daemon.pid_path, "%s", folder.file("missing/x.pid").c_str());
        g_daemon.runConsole();
    });
    EXPECT_EQ(ended.out, no_access);
}

TEST_F(WritePid, ClaimsTheFileThatTheDescriptorHolds) {
    const Ended ended = inChild([this] {
        g_daemon.pid_fd = open(pidPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        const int result = g_daemon.writePid();
        std::printf("%d %d", result, readFile(pidPath) == std::to_string(getpid()) + "\n");
    });
    EXPECT_EQ(ended.out, "0 1");
}

TEST_F(WritePid, WithoutADescriptorReturnsMinusOne) {
    EXPECT_EQ(g_daemon.pid_fd, -1);
    EXPECT_EQ(g_daemon.writePid(), -1);
}

TEST_F(Usage, IsTheFixedTextOfFifteenLines) {
    const StdoutCapture out;
    g_daemon.usage();
    EXPECT_EQ(out.text(), "usage:addrpubd [-start] | [-stop] | [-status] | [-ver]\n"
                          "demo:\n"
                          "addrpubd -start\n"
                          "    Start the service or run in background\n"
                          "addrpubd -stop\n"
                          "    Stop addrpubd\n"
                          "addrpubd -status\n"
                          "    Check if addrpubd is running\n"
                          "addrpubd -ver\n"
                          "    view the version of addrpubd\n"
                          "addrpubd -run\n"
                          "    Run in console\n"
                          "\n"
                          "addrpubd ver 1.0.4 build 2025-4-11\n"
                          "\n");
}

}  // namespace
