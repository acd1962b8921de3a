//  Intercepts calls of the service to the system and to libraries. Hooks lists those that a test can replace.
//
//  Test programs are linked with --wrap for each call. A call without a hook goes to the real function. reset() removes
//  all hooks; most fixtures call it before and after each test.
//
//  The malloc_ and free_ of the pooled allocator are intercepted, too. So a test can count the requests of the service
//  to the pool and its blocks, and can make requests fail (pool_refuses).
//
//  Threads: hooks may be set only while no other thread runs.
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
    std::function<bool(std::size_t)> pool_refuses;  // called with the size of each request; true makes it fail
};

//  Never destroyed, because exit handlers of the program also call the hooks.
Hooks& hooks();
void reset();

//  open_files: files opened by fopen and not closed. pool_blocks: pool blocks in use. pool_requests: requests to the
//  pool.
extern std::atomic<long> open_files;
extern std::atomic<long> pool_blocks;
extern std::atomic<long> pool_requests;

//  The real functions, for hooks that only observe.
int real_fcntl(int fd, int command, void* argument);
FILE* real_fopen(const char* path, const char* mode);

}  // namespace platform

#endif
