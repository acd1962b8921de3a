#include "fake_sockets.h"

#include "olk_allocator.h"

#include <cerrno>
#include <cstdarg>
#include <utility>

#include <arpa/inet.h>
#include <fcntl.h>

namespace {

FakeSockets* the_fake = nullptr;
std::atomic<long> memory_requests{0};

//  Returns true for descriptors of the fake, and for -1, so that calls with an invalid descriptor are recorded too.
bool fake(int fd) {
    return the_fake != nullptr && (fd == -1 || the_fake->owns(fd));
}

std::string words(std::initializer_list<std::string> parts) {
    std::string line;
    for (const std::string& part : parts)
        line += (line.empty() ? "" : " ") + part;
    return line;
}

}  // namespace

extern "C" {
int __real_socket(int, int, int);
int __real_setsockopt(int, int, int, const void*, socklen_t);
int __real_fcntl(int, int, ...);
ssize_t __real_sendto(int, const void*, size_t, int, const sockaddr*, socklen_t);
int __real_shutdown(int, int);
int __real_close(int);
int __real_inet_pton(int, const char*, void*);
void* __real_malloc(size_t);
void* __real__Znwm(size_t);
void* __real__ZN3olk9allocator7malloc_EmPm(olk::allocator*, size_t, size_t*);

int __wrap_socket(int family, int type, int protocol) {
    return the_fake != nullptr ? the_fake->make(family, type, protocol) : __real_socket(family, type, protocol);
}

int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t length) {
    return fake(fd) ? the_fake->option(fd, level, name, value, length)
                    : __real_setsockopt(fd, level, name, value, length);
}

int __wrap_fcntl(int fd, int command, ...) {
    va_list args;
    va_start(args, command);
    if (fake(fd)) {
        const int argument = command == F_SETFD || command == F_SETFL ? va_arg(args, int) : 0;
        va_end(args);
        return the_fake->control(fd, command, argument);
    }
    void* const argument = va_arg(args, void*);
    va_end(args);
    return __real_fcntl(fd, command, argument);
}

ssize_t __wrap_sendto(int fd, const void* bytes, size_t size, int flags, const sockaddr* to, socklen_t length) {
    if (!fake(fd))
        return __real_sendto(fd, bytes, size, flags, to, length);
    if (the_fake->forgets)
        return static_cast<ssize_t>(size);
    Datagram datagram = {fd, std::string(static_cast<const char*>(bytes), size), flags, to != nullptr, "", length};
    if (to != nullptr)
        datagram.destination.assign(reinterpret_cast<const char*>(to), length);
    return the_fake->send(datagram);
}

int __wrap_shutdown(int fd, int how) {
    if (!fake(fd))
        return __real_shutdown(fd, how);
    the_fake->calls.push_back(words({"shutdown", std::to_string(fd), std::to_string(how)}));
    return 0;
}

int __wrap_close(int fd) {
    if (!fake(fd))
        return __real_close(fd);
    the_fake->calls.push_back(words({"close", std::to_string(fd)}));
    return 0;
}

int __wrap_inet_pton(int family, const char* text, void* address) {
    if (the_fake != nullptr && the_fake->inet_pton_fails)
        return 0;
    return __real_inet_pton(family, text, address);
}

void* __wrap_malloc(size_t size) {
    ++memory_requests;
    return __real_malloc(size);
}

//  operator new(size_t).
void* __wrap__Znwm(size_t size) {
    ++memory_requests;
    return __real__Znwm(size);
}

//  olk::allocator::malloc_(size_t, size_t*).
void* __wrap__ZN3olk9allocator7malloc_EmPm(olk::allocator* self, size_t size, size_t* outsize) {
    ++memory_requests;
    return __real__ZN3olk9allocator7malloc_EmPm(self, size, outsize);
}
}

FakeSockets::FakeSockets() {
    the_fake = this;
}

FakeSockets::~FakeSockets() {
    the_fake = nullptr;
}

std::vector<std::string> FakeSockets::take_calls() {
    return std::exchange(calls, {});
}

Datagram FakeSockets::take_datagram() {
    Datagram last = sent.empty() ? Datagram{} : sent.back();
    sent.clear();
    return last;
}

int FakeSockets::make(int family, int type, int protocol) {
    calls.push_back(words({"socket", std::to_string(family), std::to_string(type), std::to_string(protocol)}));
    return socket_fails || family == AF_UNSPEC ? -1 : next_++;
}

int FakeSockets::control(int fd, int command, int argument) {
    calls.push_back(words({"fcntl", std::to_string(fd), std::to_string(command), std::to_string(argument)}));
    if (fcntl_fails)
        return -1;
    return command == F_GETFD ? descriptor_flags : 0;
}

int FakeSockets::option(int fd, int level, int name, const void* value, socklen_t length) {
    const std::string number = length == sizeof(int) ? std::to_string(*static_cast<const int*>(value)) : "no int";
    calls.push_back(words({"setsockopt", std::to_string(fd), std::to_string(level), std::to_string(name), number}));
    return setsockopt_fails ? -1 : 0;
}

ssize_t FakeSockets::send(const Datagram& datagram) {
    const std::lock_guard guard(mutex_);
    sent.push_back(datagram);
    if (sendto_fails) {
        errno = EAGAIN;
        return -1;
    }
    return static_cast<ssize_t>(datagram.bytes.size());
}

long FakeSockets::requests() {
    return memory_requests;
}
