#include "service_child.h"

#include "service_platform.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

//  Time after which a hanging child is killed. Tests end far earlier unless they are faulty.
constexpr time_t hang_limit_seconds = 100;

//  Limits the time of this process. alarm(2) is unsuitable: the service uses the same timer and signal.
void killAtHangLimit() {
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGKILL;
    timer_t timer = {};
    const itimerspec limit = {{0, 0}, {hang_limit_seconds, 0}};
    if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0 || timer_settime(timer, 0, &limit, nullptr) != 0)
        std::abort();
}

struct flock wholeFile() {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

}  // namespace

Ended inChild(const std::function<void()>& body) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        std::abort();
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        killAtHangLimit();
        body();
        std::fflush(stdout);
        _exit(99);
    }
    close(ends[1]);
    Ended ended;
    char part[4096];
    for (ssize_t got; (got = read(ends[0], part, sizeof part)) > 0;)
        ended.out.append(part, static_cast<std::size_t>(got));
    close(ends[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    ended.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return ended;
}

LockHolder::LockHolder(const std::string& path) : pid_(-1), keep_(-1) {
    int ready[2], keep[2];
    if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(keep, O_CLOEXEC) != 0)
        std::abort();
    pid_ = fork();
    if (pid_ == 0) {
        close(keep[1]);
        struct flock lock = wholeFile();
        const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        char byte = platform::real_fcntl(fd, F_SETLK, &lock) == 0 ? 'y' : 'n';
        if (write(ready[1], &byte, 1) == 1)
            static_cast<void>(!read(keep[0], &byte, 1));
        _exit(0);
    }
    close(keep[0]);
    close(ready[1]);
    keep_ = keep[1];
    char byte = 'n';
    if (read(ready[0], &byte, 1) != 1 || byte != 'y')
        std::abort();
    close(ready[0]);
}

void LockHolder::release() {
    if (pid_ == -1)
        return;
    //  Ended by a signal: closing the pipe is not enough, because children that were forked since then keep it open.
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    close(keep_);
    pid_ = -1;
}

//  A child makes the query. If this process closed the file, it would release its own lock.
pid_t holderOf(const std::string& path) {
    const Ended ended = inChild([&] {
        platform::reset();
        struct flock lock = wholeFile();
        const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        platform::real_fcntl(fd, F_GETLK, &lock);
        std::printf("%d", lock.l_type == F_UNLCK ? 0 : lock.l_pid);
    });
    return std::atoi(ended.out.c_str());
}
