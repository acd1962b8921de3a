//  These tests use a virtual clock that advances only by sleeping.
#include "files/lock.h"

#include "open_support.h"

#include <cerrno>
#include <functional>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

namespace {
bool virtualTime = false;
std::int64_t virtualNow = 0;    // ms
std::function<void()> onSleep;  // called by each virtual sleep
}  // namespace

extern "C" {
int __real_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    if (!virtualTime)
        return __real_clock_gettime(clock, now);
    *now = {virtualNow / 1000, virtualNow % 1000 * 1000000};
    return 0;
}
int __real_nanosleep(const timespec* time, timespec* left);
int __wrap_nanosleep(const timespec* time, timespec* left) {
    if (!virtualTime)
        return __real_nanosleep(time, left);
    virtualNow += time->tv_sec * 1000 + time->tv_nsec / 1000000;
    if (onSleep)
        onSleep();
    return 0;
}
}

namespace {

using namespace opentest;
using rdbopen::FileLock;
using std::chrono::milliseconds;

class FileLockTest : public testing::Test {
protected:
    FileLockTest() {
        virtualTime = true;
        virtualNow = 5000;
    }
    ~FileLockTest() override {
        virtualTime = false;
        onSleep = nullptr;
    }
    Folder folder;
    const std::string path = folder.file(".lock");
};

using FileLock_ = FileLockTest;

TEST_F(FileLock_, IsTakenAndReleased) {
    for (int i = 0; i < 2; ++i) {
        FileLock lock;
        EXPECT_EQ(lock.acquire(path, milliseconds(0)).code, rdbopen::errorNone);
    }
}

TEST_F(FileLock_, ASecondLockFailsAtItsLimit) {
    FileLock first;
    ASSERT_EQ(first.acquire(path, milliseconds(2000)).code, rdbopen::errorNone);
    FileLock second;
    EXPECT_EQ(second.acquire(path, milliseconds(2000)).reason, errorText(EWOULDBLOCK));
    EXPECT_EQ(virtualNow, 7000);
}

TEST_F(FileLock_, ASecondLockIsTakenWhenTheFirstIsReleased) {
    auto first = std::make_unique<FileLock>();
    ASSERT_EQ(first->acquire(path, milliseconds(2000)).code, rdbopen::errorNone);
    onSleep = [&] {
        if (virtualNow >= 5500)
            first.reset();
    };
    FileLock second;
    EXPECT_EQ(second.acquire(path, milliseconds(2000)).code, rdbopen::errorNone);
    EXPECT_EQ(virtualNow, 5500);
}

TEST_F(FileLock_, IfTheLockedFileWasRemovedTheNewFileIsLocked) {
    auto first = std::make_unique<FileLock>();
    ASSERT_EQ(first->acquire(path, milliseconds(2000)).code, rdbopen::errorNone);
    onSleep = [&] {
        unlink(path.c_str());
        first.reset();
    };
    FileLock second;
    EXPECT_EQ(second.acquire(path, milliseconds(2000)).code, rdbopen::errorNone);
    FileLock third;
    onSleep = nullptr;
    EXPECT_EQ(third.acquire(path, milliseconds(100)).reason, errorText(EWOULDBLOCK));
}

TEST_F(FileLock_, AMissingFolderIsReported) {
    FileLock lock;
    EXPECT_EQ(lock.acquire(folder.file("no/lock"), milliseconds(2000)).reason, errorText(ENOENT));
}

TEST_F(FileLock_, ASymbolicLinkIsNotFollowed) {
    ASSERT_EQ(symlink("/etc/passwd", path.c_str()), 0);
    FileLock lock;
    EXPECT_EQ(lock.acquire(path, milliseconds(2000)).reason, errorText(ELOOP));
}

}  // namespace
