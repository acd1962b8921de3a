//  Preloaded into a program that uses the open client library. Shortens the waits of the library's workers.
//
//  Replaces calls of poll that have a time limit. The first descriptor distinguishes two kinds of wait. If it is the
//  worker's eventfd, the worker waits between two pieces of work: it is idle, waits for the next check, or waits after
//  a failure. If it is a socket, the worker exchanges messages with a server:
//
//      first descriptor    limit                                  recorded
//      eventfd             a fiftieth, at least 1 ms              yes
//      any other           unchanged, or divided by HURRYSHIM_SOCKETS   no
//
//  The monotonic clock stays real, so by that clock a shortened wait ends early. The worker does not compare the clock:
//  it uses the result of poll.
//
//  HURRYSHIM_FILE     file to which each wait of a worker is appended: "begin MILLISECONDS\n" and "end MILLISECONDS
//                     RESULT\n", with the requested limit and the result of poll, 0 if the time expired. If it is not
//                     set, nothing is recorded.
//  HURRYSHIM_SOCKETS  a whole number of at least 1.
//
//  Threads: any thread may call poll.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int workerDivisor = 50;

using PollFunction = int (*)(pollfd*, nfds_t, int);

PollFunction realPoll() {
    static const auto function = reinterpret_cast<PollFunction>(dlsym(RTLD_NEXT, "poll"));
    return function;
}

bool isEventfd(int fd) {
    char link[64];
    char target[64]{};
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    return readlink(link, target, sizeof target - 1) > 0 && strcmp(target, "anon_inode:[eventfd]") == 0;
}

int socketDivisor() {
    const char* const text = getenv("HURRYSHIM_SOCKETS");
    return text == nullptr ? 1 : std::max(1, atoi(text));
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
    const int result = realPoll()(descriptors, count, shortened(timeout, workerDivisor));
    const int error = errno;
    snprintf(line, sizeof line, "end %d %d\n", timeout, result);
    writeDown(line);
    errno = error;
    return result;
}

}  // namespace

//  The function has a different name in C++, because the C library declares the descriptors as write-only.
extern "C" int hurriedPoll(pollfd* descriptors, nfds_t count, int timeout) __asm__("poll");

int hurriedPoll(pollfd* descriptors, nfds_t count, int timeout) {
    const int before = errno;
    const bool worker = timeout >= 0 && count > 0 && isEventfd(descriptors[0].fd);
    errno = before;
    if (worker)
        return hurry(descriptors, count, timeout);
    return realPoll()(descriptors, count, timeout < 0 ? timeout : shortened(timeout, socketDivisor()));
}
