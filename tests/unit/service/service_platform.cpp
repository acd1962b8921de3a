#include "service_platform.h"

#include "olk_allocator.h"

#include <cstdarg>

#include <arpa/inet.h>
#include <fcntl.h>

namespace platform {

std::atomic<long> open_files{0};
std::atomic<long> pool_blocks{0};
std::atomic<long> pool_requests{0};

Hooks& hooks() {
    static Hooks* const the_hooks = new Hooks;
    return *the_hooks;
}

void reset() {
    hooks() = Hooks{};
}

}  // namespace platform

using platform::hooks;

extern "C" {
time_t __real_time(time_t*);
tm* __real_localtime_r(const time_t*, tm*);
int __real_nanosleep(const timespec*, timespec*);
int __real_getifaddrs(ifaddrs**);
void __real_freeifaddrs(ifaddrs*);
const char* __real_inet_ntop(int, const void*, char*, socklen_t);
ssize_t __real_readlink(const char*, char*, size_t);
FILE* __real_fopen(const char*, const char*);
int __real_fclose(FILE*);
int __real_open(const char*, int, ...);
int __real_fcntl(int, int, ...);
int __real_ftruncate(int, off_t);
ssize_t __real_write(int, const void*, size_t);
ssize_t __real_pread(int, void*, size_t, off_t);
int __real_getaddrinfo(const char*, const char*, const addrinfo*, addrinfo**);
int __real_socket(int, int, int);
unsigned __real_sleep(unsigned);
int __real_kill(pid_t, int);
void* __real__ZN3olk9allocator7malloc_EmPm(olk::allocator*, size_t, size_t*);
void __real__ZN3olk9allocator5free_EPv(olk::allocator*, void*);

time_t __wrap_time(time_t* out) {
    if (!hooks().time)
        return __real_time(out);
    const time_t now = hooks().time();
    if (out != nullptr)
        *out = now;
    return now;
}

tm* __wrap_localtime_r(const time_t* seconds, tm* fields) {
    return hooks().localtime_r ? hooks().localtime_r(seconds, fields) : __real_localtime_r(seconds, fields);
}

int __wrap_nanosleep(const timespec* request, timespec* left) {
    return hooks().nanosleep ? hooks().nanosleep(request) : __real_nanosleep(request, left);
}

int __wrap_getifaddrs(ifaddrs** list) {
    return hooks().getifaddrs ? hooks().getifaddrs(list) : __real_getifaddrs(list);
}

void __wrap_freeifaddrs(ifaddrs* list) {
    if (hooks().freeifaddrs)
        hooks().freeifaddrs(list);
    else
        __real_freeifaddrs(list);
}

const char* __wrap_inet_ntop(int family, const void* address, char* text, socklen_t size) {
    return hooks().inet_ntop ? hooks().inet_ntop(family, address, text, size)
                             : __real_inet_ntop(family, address, text, size);
}

ssize_t __wrap_readlink(const char* path, char* buffer, size_t size) {
    return hooks().readlink ? hooks().readlink(path, buffer, size) : __real_readlink(path, buffer, size);
}

FILE* __wrap_fopen(const char* path, const char* mode) {
    FILE* file = hooks().fopen ? hooks().fopen(path, mode) : __real_fopen(path, mode);
    if (file != nullptr)
        ++platform::open_files;
    return file;
}

int __wrap_fclose(FILE* file) {
    --platform::open_files;
    return __real_fclose(file);
}

int __wrap_open(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    return hooks().open ? hooks().open(path, flags, mode) : __real_open(path, flags, mode);
}

int __wrap_fcntl(int fd, int command, ...) {
    va_list args;
    va_start(args, command);
    void* const argument = va_arg(args, void*);
    va_end(args);
    return hooks().fcntl ? hooks().fcntl(fd, command, argument) : __real_fcntl(fd, command, argument);
}

int __wrap_ftruncate(int fd, off_t length) {
    return hooks().ftruncate ? hooks().ftruncate(fd, length) : __real_ftruncate(fd, length);
}

ssize_t __wrap_write(int fd, const void* bytes, size_t size) {
    return hooks().write ? hooks().write(fd, bytes, size) : __real_write(fd, bytes, size);
}

ssize_t __wrap_pread(int fd, void* bytes, size_t size, off_t offset) {
    return hooks().pread ? hooks().pread(fd, bytes, size, offset) : __real_pread(fd, bytes, size, offset);
}

int __wrap_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** list) {
    return hooks().getaddrinfo ? hooks().getaddrinfo(node, list) : __real_getaddrinfo(node, service, hints, list);
}

int __wrap_socket(int domain, int type, int protocol) {
    return hooks().socket ? hooks().socket(domain, type, protocol) : __real_socket(domain, type, protocol);
}

unsigned __wrap_sleep(unsigned seconds) {
    return hooks().sleep ? hooks().sleep(seconds) : __real_sleep(seconds);
}

int __wrap_kill(pid_t pid, int signal) {
    return hooks().kill ? hooks().kill(pid, signal) : __real_kill(pid, signal);
}

//  olk::allocator::malloc_(size_t, size_t*) and olk::allocator::free_(void*).
void* __wrap__ZN3olk9allocator7malloc_EmPm(olk::allocator* self, size_t size, size_t* outsize) {
    ++platform::pool_requests;
    if (hooks().pool_refuses && hooks().pool_refuses(size))
        return nullptr;
    void* const block = __real__ZN3olk9allocator7malloc_EmPm(self, size, outsize);
    if (block != nullptr)
        ++platform::pool_blocks;
    return block;
}

void __wrap__ZN3olk9allocator5free_EPv(olk::allocator* self, void* block) {
    if (block != nullptr)
        --platform::pool_blocks;
    __real__ZN3olk9allocator5free_EPv(self, block);
}
}

namespace platform {

int real_fcntl(int fd, int command, void* argument) {
    return __real_fcntl(fd, command, argument);
}

FILE* real_fopen(const char* path, const char* mode) {
    return __real_fopen(path, mode);
}

}  // namespace platform
