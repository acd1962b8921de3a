#include "pidfile.h"

#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

namespace {

//  Returns the description of a write lock that covers the whole file.
struct flock wholeFile(pid_t pid) {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_pid = pid;
    return lock;
}

}  // namespace

int openPidFile(const char* path) {
    return open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
}

PidFileState queryPidLock(int fd, pid_t& holder) {
    struct flock lock = wholeFile(-1);
    if (fcntl(fd, F_GETLK, &lock) == -1)
        return PidFileState::no_access;
    if (lock.l_type == F_UNLCK)
        return PidFileState::free;
    holder = lock.l_pid;
    return PidFileState::held;
}

int claimPidFile(int fd) {
    struct flock lock = wholeFile(getpid());
    if (fcntl(fd, F_SETLKW, &lock) == -1 || ftruncate(fd, 0) == -1)
        return -1;
    lseek(fd, 0, SEEK_SET);
    char text[24];
    const int length = std::snprintf(text, sizeof text, "%ld\n", static_cast<long>(getpid()));
    return write(fd, text, static_cast<size_t>(length)) > 0 ? 0 : -1;
}

pid_t readPidText(int fd) {
    constexpr size_t max_length = 80;
    char text[max_length + 1] = {};
    if (pread(fd, text, max_length, 0) <= 0)
        return -1;
    const long pid = std::strtol(text, nullptr, 10);
    return pid == static_cast<pid_t>(pid) ? static_cast<pid_t>(pid) : -1;
}

PidFileState probePidFile(const char* path, pid_t& holder) {
    const int fd = openPidFile(path);
    if (fd == -1)
        return PidFileState::no_access;
    const PidFileState state = queryPidLock(fd, holder);
    if (state == PidFileState::held && holder < 0)
        holder = readPidText(fd);
    close(fd);
    return state;
}
