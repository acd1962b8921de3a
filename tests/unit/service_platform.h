//  Stands between the service and the system: every call of the list below passes through here.
//
//  The test programs are linked with --wrap for each of them. Without a hook the real call is made. Hooks of an earlier
//  test are forgotten by reset(), which every fixture calls first and last.
//
//  The pool's two entry points are among them, so that a test counts the service's requests and refuses them one by one.
//
//  Threads: hooks are set while no other thread runs.
#ifndef SERVICE_PLATFORM_H
#define SERVICE_PLATFORM_H

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <functional>

#include <ifaddrs.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/types.h>

namespace platform {

struct Hooks {
    std::function<time_t()> time;
    std::function<tm*(const time_t*, tm*)> localtime_r;
    std::function<int(const timespec*)> nanosleep;
    std::function<int(ifaddrs**)> getifaddrs;
    std::function<void(ifaddrs*)> freeifaddrs;
    std::function<const char*(int, const void*, char*, socklen_t)> inet_ntop;
    std::function<ssize_t(const char*, char*, std::size_t)> readlink;
    std::function<FILE*(const char*, const char*)> fopen;
    std::function<int(const char*, int, mode_t)> open;
    std::function<int(int, int, void*)> fcntl;
    std::function<int(int, off_t)> ftruncate;
    std::function<ssize_t(int, const void*, std::size_t)> write;
    std::function<ssize_t(int, void*, std::size_t, off_t)> pread;
    std::function<int(const char*, addrinfo**)> getaddrinfo;
    std::function<int(int, int, int)> socket;
    std::function<unsigned(unsigned)> sleep;
    std::function<int(pid_t, int)> kill;
    std::function<bool(std::size_t)> pool_refuses;  // told the bytes of each request; true makes it fail
};

//  Never destroyed: exit handlers of the program come through here too.
Hooks& hooks();
void reset();

//  Files opened by fopen and not closed yet; blocks of the pool taken and not given back; requests to the pool.
extern std::atomic<long> open_files;
extern std::atomic<long> pool_blocks;
extern std::atomic<long> pool_requests;

//  The real calls, for hooks that only look.
int real_fcntl(int fd, int command, void* argument);
FILE* real_fopen(const char* path, const char* mode);

}  // namespace platform

#endif
