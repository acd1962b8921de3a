//  The functions that the fault shim replaces. failshim.h describes the rules.
//
//  A function is not replaced if it reports no failure that the executable could handle, for example getpid, umask,
//  tzset, mallopt, a function on strings, or a function without a result. test_500_nth_failure.py lists these functions
//  with the reasons.
#include "failshim.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "rdbapi.h"

namespace {

template <class FUNCTION>
FUNCTION next(FUNCTION, const char* name) {
    return reinterpret_cast<FUNCTION>(dlsym(RTLD_NEXT, name));
}

//  Returns the result of a call that must fail: -1 (strikes has set errno), or 0 if the plan requires a short result.
int refused() {
    return failshim::error() == 0 ? 0 : -1;
}

}  // namespace

#define STRIKES(name) failshim::strikes(#name, __builtin_return_address(0))

//  Defines the replacement of the function `name`. The replacement calls the original, or returns `failure` if the plan
//  requires a failure.
#define STAND_BEFORE(result, name, parameters, arguments, failure)                                                     \
    result name parameters {                                                                                           \
        static const auto real = next(&::name, #name);                                                                 \
        return STRIKES(name) ? (failure) : real arguments;                                                             \
    }

extern "C" {

STAND_BEFORE(int, ftruncate, (int fd, off_t length) noexcept, (fd, length), -1)
STAND_BEFORE(off_t, lseek, (int fd, off_t offset, int whence) noexcept, (fd, offset, whence), -1)
STAND_BEFORE(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size), refused())
STAND_BEFORE(ssize_t, pread, (int fd, void* data, size_t size, off_t offset), (fd, data, size, offset), refused())
STAND_BEFORE(ssize_t, readlink, (const char* path, char* text, size_t size) noexcept, (path, text, size), refused())
STAND_BEFORE(int, dup2, (int from, int to) noexcept, (from, to), -1)
STAND_BEFORE(int, chdir, (const char* path) noexcept, (path), -1)
STAND_BEFORE(pid_t, setsid, () noexcept, (), -1)
STAND_BEFORE(int, kill, (pid_t pid, int number) noexcept, (pid, number), -1)
STAND_BEFORE(sighandler_t, signal, (int number, sighandler_t handler) noexcept, (number, handler), SIG_ERR)
STAND_BEFORE(int, setitimer, (__itimer_which_t which, const itimerval* value, itimerval* old) noexcept,
             (which, value, old), -1)
STAND_BEFORE(int, sigaction, (int number, const struct sigaction* action, struct sigaction* old) noexcept,
             (number, action, old), -1)
STAND_BEFORE(int, sigprocmask, (int how, const sigset_t* set, sigset_t* old) noexcept, (how, set, old), -1)

STAND_BEFORE(int, msgget, (key_t key, int flags) noexcept, (key, flags), -1)
STAND_BEFORE(int, msgsnd, (int id, const void* message, size_t size, int flags), (id, message, size, flags), -1)
STAND_BEFORE(ssize_t, msgrcv, (int id, void* message, size_t size, long type, int flags),
             (id, message, size, type, flags), -1)
STAND_BEFORE(int, msgctl, (int id, int command, msqid_ds* data) noexcept, (id, command, data), -1)

STAND_BEFORE(unsigned, sleep, (unsigned seconds), (seconds), seconds)
STAND_BEFORE(int, usleep, (useconds_t microseconds), (microseconds), -1)
STAND_BEFORE(int, nanosleep, (const timespec* request, timespec* left), (request, left), -1)
STAND_BEFORE(time_t, time, (time_t * t) noexcept, (t), -1)
STAND_BEFORE(int, gettimeofday, (timeval * t, void* zone) noexcept, (t, zone), -1)
STAND_BEFORE(tm*, localtime_r, (const time_t* t, tm* local) noexcept, (t, local), nullptr)

STAND_BEFORE(int, getifaddrs, (ifaddrs * *list) noexcept, (list), -1)
STAND_BEFORE(const char*, inet_ntop, (int family, const void* address, char* text, socklen_t size) noexcept,
             (family, address, text, size), nullptr)
STAND_BEFORE(int, inet_pton, (int family, const char* text, void* address) noexcept, (family, text, address), refused())
STAND_BEFORE(int, getaddrinfo, (const char* name, const char* service, const addrinfo* hints, addrinfo** list),
             (name, service, hints, list), failshim::error())
STAND_BEFORE(int, socket, (int family, int type, int protocol) noexcept, (family, type, protocol), -1)
STAND_BEFORE(int, setsockopt, (int fd, int level, int option, const void* value, socklen_t size) noexcept,
             (fd, level, option, value, size), -1)
STAND_BEFORE(ssize_t, sendto, (int fd, const void* data, size_t size, int flags, const sockaddr* to, socklen_t length),
             (fd, data, size, flags, to, length), refused())
STAND_BEFORE(int, shutdown, (int fd, int how) noexcept, (fd, how), -1)

STAND_BEFORE(void*, mmap, (void* address, size_t size, int protection, int flags, int fd, off_t offset) noexcept,
             (address, size, protection, flags, fd, offset), MAP_FAILED)
STAND_BEFORE(int, munmap, (void* address, size_t size) noexcept, (address, size), -1)
STAND_BEFORE(void*, malloc, (size_t size) noexcept, (size), nullptr)

STAND_BEFORE(FILE*, fopen, (const char* path, const char* mode), (path, mode), nullptr)
STAND_BEFORE(int, fgetc, (FILE * file), (file), EOF)
STAND_BEFORE(size_t, fread, (void* data, size_t size, size_t count, FILE* file), (data, size, count, file), 0)
STAND_BEFORE(int, puts, (const char* text), (text), EOF)
STAND_BEFORE(size_t, fwrite, (const void* data, size_t size, size_t count, FILE* file), (data, size, count, file), 0)
STAND_BEFORE(int, fflush, (FILE * file), (file), EOF)
STAND_BEFORE(int, vfprintf, (FILE * file, const char* format, va_list arguments), (file, format, arguments), -1)
STAND_BEFORE(int, vsnprintf, (char* text, size_t size, const char* format, va_list arguments) noexcept,
             (text, size, format, arguments), -1)

STAND_BEFORE(int, rdb_create, (), (), failshim::error())
STAND_BEFORE(int, rdb_setmessagenotify, (int handle, RdbMessageNotify callback, void* user), (handle, callback, user),
             failshim::error())
STAND_BEFORE(int, rdb_connectex, (int handle, const char* url, const char* user, const char* password, int reserved),
             (handle, url, user, password, reserved), failshim::error())
STAND_BEFORE(int, rdb_callmsg, (int handle, const char* text, int32_t length, RdbReply callback, void* user),
             (handle, text, length, callback, user), failshim::error())
STAND_BEFORE(int, rdb_tagget, (int handle, RdbTag* tag), (handle, tag), failshim::error())
STAND_BEFORE(int, rdb_taginport, (int handle, int mode, RdbTag* tag, int32_t* filled), (handle, mode, tag, filled),
             failshim::error())
STAND_BEFORE(int, rdb_objputsnapshot, (int handle, const RdbSnapshot* records, int count), (handle, records, count),
             failshim::error())
STAND_BEFORE(int, rdb_disconnect, (int handle), (handle), failshim::error())
STAND_BEFORE(int, rdb_destory, (int handle), (handle), failshim::error())

int close(int fd) {
    static const auto real = next(&::close, "close");
    const bool fails = STRIKES(close);
    const int result = real(fd);
    if (!fails) {
        return result;
    }
    errno = failshim::error();
    return -1;
}

//  Both functions below count as putchar, because the compiler may replace a call of putchar by one of putc.
int putchar(int c) {
    return STRIKES(putchar) ? EOF : fputc(c, stdout);
}

int putc(int c, FILE* file) {
    return STRIKES(putchar) ? EOF : fputc(c, file);
}

int fclose(FILE* file) {
    static const auto real = next(&::fclose, "fclose");
    const bool fails = STRIKES(fclose);
    const int result = real(file);
    return fails ? EOF : result;
}

//  The third argument, the mode, is read and passed on even if the caller did not pass it. The system ignores it then.
int open(const char* path, int flags, ...) {
    using Open = int (*)(const char*, int, ...);
    static const auto real = reinterpret_cast<Open>(dlsym(RTLD_NEXT, "open"));
    va_list arguments;
    va_start(arguments, flags);
    const unsigned mode = va_arg(arguments, unsigned);
    va_end(arguments);
    return STRIKES(open) ? -1 : real(path, flags, mode);
}

//  The argument of every command fits into one argument of pointer size.
int fcntl(int fd, int command, ...) {
    using Fcntl = int (*)(int, int, ...);
    static const auto real = reinterpret_cast<Fcntl>(dlsym(RTLD_NEXT, "fcntl"));
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return STRIKES(fcntl) ? -1 : real(fd, command, argument);
}

int printf(const char* format, ...) {
    const bool fails = STRIKES(printf);
    va_list arguments;
    va_start(arguments, format);
    const int result = fails ? -1 : next(&::vfprintf, "vfprintf")(stdout, format, arguments);
    va_end(arguments);
    return result;
}

int snprintf(char* text, size_t size, const char* format, ...) noexcept {
    const bool fails = STRIKES(snprintf);
    va_list arguments;
    va_start(arguments, format);
    const int result = fails ? -1 : next(&::vsnprintf, "vsnprintf")(text, size, format, arguments);
    va_end(arguments);
    return result;
}

pid_t fork() noexcept {
    static const auto real = next(&::fork, "fork");
    if (STRIKES(fork)) {
        return -1;
    }
    const pid_t child = real();
    if (child == 0) {
        failshim::begin_child();
    }
    return child;
}
}
