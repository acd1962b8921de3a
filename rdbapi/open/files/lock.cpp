#include "files/lock.h"

#include "engine/clock.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace rdbopen {

namespace {

constexpr std::chrono::milliseconds retryTime{20};

//  Mode of the lock file: only this process's user and root need to open it.
constexpr mode_t lockMode = 0600;

//  Returns whether the locked file still has a name. If another process has removed the file, its lock is useless: a
//  third process could create and lock a new file.
bool stillNamed(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && status.st_nlink > 0;
}

}  // namespace

FileLock::~FileLock() {
    if (fd_ >= 0)
        close(fd_);
}

Status FileLock::acquire(const std::string& path, std::chrono::milliseconds limit) {
    const auto until = monotonicNow() + limit;
    for (;;) {
        const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, lockMode);
        if (fd < 0)
            return systemFailure(errno);
        int error = 0;
        while ((error = flock(fd, LOCK_EX | LOCK_NB) == 0 ? 0 : errno) == EWOULDBLOCK && monotonicNow() < until)
            sleepFor(retryTime);
        if (error == 0 && stillNamed(fd)) {
            fd_ = fd;
            return {};
        }
        close(fd);
        if (error != 0)
            return systemFailure(error);
        if (monotonicNow() >= until)
            return systemFailure(EWOULDBLOCK);
    }
}

}  // namespace rdbopen
