//  Preloaded into a program that uses the open client library. Shortens the waits of the library's workers.
//
//  Replaces calls of poll that have a time limit. The first descriptor distinguishes two kinds of wait. If it is the
//  worker's eventfd, the worker waits between two pieces of work: it is idle, waits for the next check, or waits after
//  a failure. If it is a socket, the worker exchanges messages with a server:
//
//      first descriptor    limit                                              recorded
//      eventfd             divided by 50 or HURRYSHIM_WORKER                  yes
//      any other           unchanged, or divided by HURRYSHIM_SOCKETS         no
//
//  A limit that is not 0 stays at least 1 ms.
//
//  Unless HURRYSHIM_CLOCK is set, the monotonic clock stays real, so by that clock a shortened wait ends early. The
//  worker still treats the wait as expired, because it uses the result of poll and not the clock.
//
//  The worker chooses the time of its first check with a random number of four bytes (getrandom). While waits are
//  recorded, the number is fixed: the first check comes after the whole interval, and the first refresh as late as
//  possible. So if a wait that follows an expired wait is much shorter than the interval, it is a back-off.
//
//  HURRYSHIM_FILE     file to which each wait of a worker is appended: "begin MILLISECONDS\n" and "end MILLISECONDS
//                     RESULT\n", with the requested limit and the result of poll, 0 if the time expired. If it is not
//                     set, nothing is recorded.
//  HURRYSHIM_SOCKETS  a whole number of at least 1.
//  HURRYSHIM_WORKER   a whole number of at least 1, which replaces fifty.
//  HURRYSHIM_CLOCK    if set, the monotonic clock runs as fast as the waits of a worker.
//
//  Threads: any thread may call the replaced functions.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::uint32_t lateNumber = 539999;  // 1 less than a multiple of each check interval that divides 540 s

//  Returns the function that the shim's function of this name replaces. It may be that of another preloaded library.
template <class Function>
Function* replaced(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

int realPoll(pollfd* descriptors, nfds_t count, int timeout) {
    static const auto function = replaced<int(pollfd*, nfds_t, int)>("poll");
    return function(descriptors, count, timeout);
}

bool isEventfd(int fd) {
    char link[64];
    char target[64]{};
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    return readlink(link, target, sizeof target - 1) > 0 && strcmp(target, "anon_inode:[eventfd]") == 0;
}

int numberOf(const char* variable, int otherwise) {
    const char* const text = getenv(variable);
    return text == nullptr ? otherwise : std::max(1, atoi(text));
}

int workerDivisor() {
    return numberOf("HURRYSHIM_WORKER", 50);
}

int socketDivisor() {
    return numberOf("HURRYSHIM_SOCKETS", 1);
}

int shortened(int timeout, int divisor) {
    return timeout == 0 ? 0 : std::max(1, timeout / divisor);
}

//  Each line is written with one write, so that lines of several threads do not mix.
void writeDown(const char* line) {
    const char* const path = getenv("HURRYSHIM_FILE");
    const int fd = path == nullptr ? -1 : open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0)
        return;
    [[maybe_unused]] const auto written = write(fd, line, strlen(line));
    close(fd);
}

//  Makes the shortened wait in place of a worker's wait.
int hurry(pollfd* descriptors, nfds_t count, int timeout) {
    char line[40];
    snprintf(line, sizeof line, "begin %d\n", timeout);
    writeDown(line);
    const int result = realPoll(descriptors, count, shortened(timeout, workerDivisor()));
    const int error = errno;
    snprintf(line, sizeof line, "end %d %d\n", timeout, result);
    writeDown(line);
    errno = error;
    return result;
}

}  // namespace

//  The replacement of poll. Its name in C++ differs from poll, because the C library declares that poll only writes to
//  the descriptors. The replacement also reads them.
extern "C" int hurriedPoll(pollfd* descriptors, nfds_t count, int timeout) __asm__("poll");

int hurriedPoll(pollfd* descriptors, nfds_t count, int timeout) {
    const int before = errno;
    const bool worker = timeout >= 0 && count > 0 && isEventfd(descriptors[0].fd);
    errno = before;
    if (worker)
        return hurry(descriptors, count, timeout);
    return realPoll(descriptors, count, timeout < 0 ? timeout : shortened(timeout, socketDivisor()));
}

extern "C" ssize_t getrandom(void* buffer, size_t length, unsigned flags) {
    static const auto real = replaced<ssize_t(void*, size_t, unsigned)>("getrandom");
    if (length != sizeof lateNumber || getenv("HURRYSHIM_FILE") == nullptr)
        return real(buffer, length, flags);
    memcpy(buffer, &lateNumber, sizeof lateNumber);
    return static_cast<ssize_t>(length);
}

//  Returns a multiple of the system's monotonic clock. So all processes that use the same factor get the same time.
extern "C" int clock_gettime(clockid_t id, timespec* t) noexcept {
    static const auto real = replaced<int(clockid_t, timespec*)>("clock_gettime");
    static const int speed = getenv("HURRYSHIM_CLOCK") == nullptr ? 1 : workerDivisor();
    const int result = real(id, t);
    if (result != 0 || id != CLOCK_MONOTONIC || speed == 1)
        return result;
    const std::int64_t time = (std::int64_t{t->tv_sec} * 1000000000 + t->tv_nsec) * speed;
    *t = {time / 1000000000, time % 1000000000};
    return 0;
}
