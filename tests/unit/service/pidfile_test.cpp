#include "pidfile.h"

#include "service_child.h"
#include "service_platform.h"
#include "service_support.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

class PidFile : public testing::Test {
protected:
    PidFile() { platform::reset(); }
    ~PidFile() override {
        platform::reset();
        if (fd >= 0)
            close(fd);
    }
    //  Opens the file for this test.
    int opened() { return fd = openPidFile(path.c_str()); }
    mode_t modeOf() const {
        struct stat info = {};
        stat(path.c_str(), &info);
        return info.st_mode & 07777;
    }

    const TempFolder folder;
    const std::string path = folder.file("addrpubd.pid");
    const std::string own_line = std::to_string(getpid()) + "\n";
    int fd = -1;
};

using OpenPidFile = PidFile;
using PidLock = PidFile;
using ClaimPidFile = PidFile;
using PidText = PidFile;
using ProbePidFile = PidFile;

TEST_F(OpenPidFile, CreatesAMissingFileEmptyAndWithMode644) {
    const mode_t before = umask(0);
    ASSERT_GE(opened(), 0);
    umask(before);
    EXPECT_EQ(readFile(path), "");
    EXPECT_EQ(modeOf(), 0644U);
}

TEST_F(OpenPidFile, TheCallersUmaskRestrictsTheMode) {
    const mode_t before = umask(077);
    ASSERT_GE(opened(), 0);
    umask(before);
    EXPECT_EQ(modeOf(), 0600U);
}

TEST_F(OpenPidFile, KeepsTheContentOfAnExistingFile) {
    writeFile(path, "12345\n");
    ASSERT_GE(opened(), 0);
    EXPECT_EQ(readFile(path), "12345\n");
}

TEST_F(OpenPidFile, OpensForReadingAndWritingCreatesAndClosesOnExec) {
    std::string asked;
    int flags = 0;
    mode_t mode = 0;
    platform::hooks().open = [&](const char* name, int with, mode_t bits) {
        asked = name;
        flags = with;
        mode = bits;
        return -1;
    };
    EXPECT_EQ(openPidFile("/run/x.pid"), -1);
    EXPECT_EQ(asked, "/run/x.pid");
    EXPECT_EQ(flags & ~O_LARGEFILE, O_RDWR | O_CREAT | O_CLOEXEC);
    EXPECT_EQ(mode, 0644U);
}

TEST_F(OpenPidFile, ReturnsMinusOneWithoutItsFolder) {
    EXPECT_EQ(openPidFile(folder.file("missing/addrpubd.pid").c_str()), -1);
}

TEST_F(PidLock, IsFreeOnAnUnlockedFile) {
    writeFile(path, "1\n");
    pid_t holder = 77;
    EXPECT_EQ(queryPidLock(opened(), holder), PidFileState::free);
}

TEST_F(PidLock, ReportsTheProcessThatHoldsIt) {
    LockHolder other(path);
    pid_t holder = -1;
    EXPECT_EQ(queryPidLock(opened(), holder), PidFileState::held);
    EXPECT_EQ(holder, other.pid());
}

TEST_F(PidLock, IsFreeWhenTheHolderHasEnded) {
    LockHolder other(path);
    other.release();
    pid_t holder = -1;
    EXPECT_EQ(queryPidLock(opened(), holder), PidFileState::free);
}

TEST_F(PidLock, AFailedQueryIsReportedAsNoAccess) {
    platform::hooks().fcntl = [](int, int, void*) { return -1; };
    pid_t holder = -1;
    EXPECT_EQ(queryPidLock(5, holder), PidFileState::no_access);
}

TEST_F(PidLock, AnInvalidDescriptorIsReportedAsNoAccess) {
    pid_t holder = -1;
    EXPECT_EQ(queryPidLock(-1, holder), PidFileState::no_access);
}

TEST_F(PidLock, QueriesAWriteLockOverTheWholeFileWithThePidPresetToMinusOne) {
    struct flock asked = {};
    int command = 0;
    platform::hooks().fcntl = [&](int, int what, void* lock) {
        command = what;
        std::memcpy(&asked, lock, sizeof asked);
        return -1;
    };
    pid_t holder = 0;
    queryPidLock(5, holder);
    EXPECT_EQ(command, F_GETLK);
    EXPECT_EQ(asked.l_type, F_WRLCK);
    EXPECT_EQ(asked.l_whence, SEEK_SET);
    EXPECT_EQ(asked.l_start, 0);
    EXPECT_EQ(asked.l_len, 0);
    EXPECT_EQ(asked.l_pid, -1);
}

TEST_F(ClaimPidFile, TakesTheLockAndWritesOneLine) {
    ASSERT_EQ(claimPidFile(opened()), 0);
    EXPECT_EQ(readFile(path), own_line);
}

TEST_F(ClaimPidFile, LocksTheFileAgainstOthers) {
    ASSERT_EQ(claimPidFile(opened()), 0);
    EXPECT_EQ(holderOf(path), getpid());
}

TEST_F(ClaimPidFile, ClosingTheFileReleasesTheLockAndKeepsTheText) {
    ASSERT_EQ(claimPidFile(opened()), 0);
    close(fd);
    fd = -1;
    EXPECT_EQ(holderOf(path), 0);
    EXPECT_EQ(readFile(path), own_line);
}

TEST_F(ClaimPidFile, AShorterPidReplacesALongerOneCompletely) {
    writeFile(path, "123456789012345\nmore\n");
    ASSERT_EQ(claimPidFile(opened()), 0);
    EXPECT_EQ(readFile(path), own_line);
}

TEST_F(ClaimPidFile, ASecondClaimWritesTheSameContent) {
    ASSERT_EQ(claimPidFile(opened()), 0);
    ASSERT_EQ(claimPidFile(fd), 0);
    EXPECT_EQ(holderOf(path), getpid());
    //  This check is last, because closing any descriptor of the file releases this process's lock.
    EXPECT_EQ(readFile(path), own_line);
}

TEST_F(ClaimPidFile, RequestsAWriteLockOverTheWholeFileWithItsOwnPid) {
    struct flock asked = {};
    int command = 0;
    platform::hooks().fcntl = [&](int, int what, void* lock) {
        command = what;
        std::memcpy(&asked, lock, sizeof asked);
        return -1;
    };
    EXPECT_EQ(claimPidFile(5), -1);
    EXPECT_EQ(command, F_SETLKW);
    EXPECT_EQ(asked.l_type, F_WRLCK);
    EXPECT_EQ(asked.l_whence, SEEK_SET);
    EXPECT_EQ(asked.l_start, 0);
    EXPECT_EQ(asked.l_len, 0);
    EXPECT_EQ(asked.l_pid, getpid());
}

TEST_F(ClaimPidFile, WaitsUntilTheHolderIsGone) {
    LockHolder other(path);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t claimer = fork();
    if (claimer == 0) {
        platform::hooks().fcntl = [&](int file, int command, void* lock) {
            //  Here the other process holds the lock. The test ends that process only after this query.
            const bool busy = platform::real_fcntl(file, F_SETLK, lock) == -1;
            if (command == F_SETLKW && busy && write(ends[1], "w", 1) != 1)
                _exit(3);
            return platform::real_fcntl(file, command, lock);
        };
        const int file = openPidFile(path.c_str());
        _exit(claimPidFile(file) == 0 && readFile(path) == std::to_string(getpid()) + "\n" ? 0 : 1);
    }
    close(ends[1]);
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    EXPECT_EQ(readFile(path), "");
    other.release();
    int status = -1;
    waitpid(claimer, &status, 0);
    EXPECT_EQ(status, 0);
    close(ends[0]);
}

TEST_F(ClaimPidFile, AFailedLockTruncationOrWriteReturnsMinusOne) {
    const auto claimWith = [this](const std::function<void()>& spoil) {
        const int file = openPidFile(path.c_str());
        spoil();
        const int result = claimPidFile(file);
        platform::reset();
        close(file);
        return result;
    };
    EXPECT_EQ(claimWith([] { platform::hooks().fcntl = [](int, int, void*) { return -1; }; }), -1);
    EXPECT_EQ(claimWith([] { platform::hooks().ftruncate = [](int, off_t) { return -1; }; }), -1);
    EXPECT_EQ(claimWith([] { platform::hooks().write = [](int, const void*, std::size_t) { return -1; }; }), -1);
    EXPECT_EQ(claimWith([] { platform::hooks().write = [](int, const void*, std::size_t) { return 0; }; }), -1);
    EXPECT_EQ(holderOf(path), 0);
    EXPECT_EQ(claimWith([] {}), 0);
}

TEST_F(ClaimPidFile, AFailedWriteLeavesTheFileEmpty) {
    writeFile(path, "12345\n");
    opened();
    platform::hooks().write = [](int, const void*, std::size_t) { return -1; };
    EXPECT_EQ(claimPidFile(fd), -1);
    EXPECT_EQ(readFile(path), "");
}

TEST_F(ClaimPidFile, APartialWriteOfOneByteIsEnough) {
    opened();
    platform::hooks().write = [](int, const void*, std::size_t) { return 1; };
    EXPECT_EQ(claimPidFile(fd), 0);
}

TEST_F(ClaimPidFile, WithoutTheLockTheFileIsUnchanged) {
    writeFile(path, "12345\n");
    opened();
    platform::hooks().fcntl = [](int, int, void*) { return -1; };
    EXPECT_EQ(claimPidFile(fd), -1);
    EXPECT_EQ(readFile(path), "12345\n");
}

TEST_F(ClaimPidFile, ALockIsNotInheritedByAChild) {
    ASSERT_EQ(claimPidFile(opened()), 0);
    const Ended ended = inChild([this] {
        pid_t holder = -1;
        std::printf("%d", queryPidLock(fd, holder) == PidFileState::held && holder == getppid());
    });
    EXPECT_EQ(ended.out, "1");
}

struct TextRow {
    std::string text;
    pid_t pid;
};

TEST_F(PidText, IsTheNumberAtTheStartOfTheFile) {
    const TextRow rows[] = {{"12345\n", 12345},
                            {"1", 1},
                            {"0\n", 0},
                            {"-7\n", -7},
                            {"  42 43", 42},
                            {"x", 0},
                            {"\n", 0},
                            {"7x", 7},
                            {"2147483647\n", 2147483647},
                            {"2147483648\n", -1},
                            {"-2147483648\n", -2147483647 - 1},
                            {"-2147483649\n", -1},
                            {"99999999999999999999\n", -1},
                            {std::string(79, '0') + "5", 5},
                            {std::string(80, '0') + "5", 0},
                            {std::string("\0"
                                         "9",
                                         2),
                             0},
                            {"", -1}};
    for (const TextRow& row : rows) {
        writeFile(path, row.text);
        const int file = openPidFile(path.c_str());
        EXPECT_EQ(readPidText(file), row.pid) << testing::PrintToString(row.text);
        close(file);
    }
}

TEST_F(PidText, IsReadFromTheStartAtAnotherOffset) {
    writeFile(path, "12345\n");
    lseek(opened(), 3, SEEK_SET);
    EXPECT_EQ(readPidText(fd), 12345);
}

TEST_F(PidText, IsMinusOneWhenReadingFails) {
    EXPECT_EQ(readPidText(-1), -1);
    platform::hooks().pread = [](int, void*, std::size_t, off_t) { return -1; };
    EXPECT_EQ(readPidText(opened()), -1);
}

TEST_F(ProbePidFile, AnUnlockedFileWithAPidIsFree) {
    writeFile(path, "1\n");
    pid_t holder = -1;
    EXPECT_EQ(probePidFile(path.c_str(), holder), PidFileState::free);
    EXPECT_EQ(readFile(path), "1\n");
}

TEST_F(ProbePidFile, AMissingFileIsCreatedAndFree) {
    pid_t holder = -1;
    EXPECT_EQ(probePidFile(path.c_str(), holder), PidFileState::free);
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
}

TEST_F(ProbePidFile, ReportsTheHolder) {
    const LockHolder other(path);
    writeFile(path, "999999\n");
    pid_t holder = -1;
    EXPECT_EQ(probePidFile(path.c_str(), holder), PidFileState::held);
    EXPECT_EQ(holder, other.pid());
}

TEST_F(ProbePidFile, TheTextIdentifiesAHolderWithoutAPid) {
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(platform::real_fcntl(file, F_OFD_SETLK, &lock), 0);
    for (const TextRow& row : {TextRow{"4321\n", 4321}, TextRow{"", -1}}) {
        writeFile(path, row.text);
        pid_t holder = 77;
        EXPECT_EQ(probePidFile(path.c_str(), holder), PidFileState::held);
        EXPECT_EQ(holder, row.pid);
    }
    close(file);
}

TEST_F(ProbePidFile, AHolderInAnotherPidNamespaceIsReportedAs0) {
    writeFile(path, "4321\n");
    platform::hooks().fcntl = [](int file, int command, void* argument) {
        if (command != F_GETLK)
            return platform::real_fcntl(file, command, argument);
        static_cast<struct flock*>(argument)->l_pid = 0;
        return 0;
    };
    pid_t holder = -1;
    EXPECT_EQ(probePidFile(path.c_str(), holder), PidFileState::held);
    EXPECT_EQ(holder, 0);
}

TEST_F(ProbePidFile, NoAccessWhenOpenOrQueryFails) {
    pid_t holder = -1;
    EXPECT_EQ(probePidFile(folder.file("missing/x").c_str(), holder), PidFileState::no_access);
    platform::hooks().fcntl = [](int file, int command, void* argument) {
        return command == F_GETLK ? -1 : platform::real_fcntl(file, command, argument);
    };
    EXPECT_EQ(probePidFile(path.c_str(), holder), PidFileState::no_access);
}

TEST_F(ProbePidFile, ClosesTheFile) {
    const std::size_t before = openDescriptors();
    const LockHolder other(path);
    pid_t holder = -1;
    probePidFile(path.c_str(), holder);
    probePidFile(folder.file("free").c_str(), holder);
    platform::hooks().fcntl = [](int, int, void*) { return -1; };
    probePidFile(path.c_str(), holder);
    EXPECT_EQ(openDescriptors(), before + 1);  // the pipe to the lock holder
}

}  // namespace
