#include "no_memory.h"

#include <cstdlib>
#include <new>

extern "C" {
void* __real_malloc(std::size_t bytes) __attribute__((weak));  // linked only into programs with --wrap=malloc
void* __wrap_malloc(std::size_t bytes);
}

namespace {

thread_local bool g_refused = false;
thread_local std::size_t g_bytes = NoMemory::any;

void* request(std::size_t bytes) {
    if (g_refused && (g_bytes == NoMemory::any || g_bytes == bytes))
        return nullptr;
    return __real_malloc != nullptr ? __real_malloc(bytes) : std::malloc(bytes);
}

void* requestOrThrow(std::size_t bytes) {
    void* p = request(bytes);
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

}  // namespace

NoMemory::NoMemory(std::size_t bytes) {
    g_bytes = bytes;
    g_refused = true;
}

NoMemory::~NoMemory() {
    g_refused = false;
}

void* __wrap_malloc(std::size_t bytes) {
    return request(bytes);
}

void* operator new(std::size_t bytes) {
    return requestOrThrow(bytes);
}

void* operator new[](std::size_t bytes) {
    return requestOrThrow(bytes);
}

void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
    return request(bytes);
}

void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
    return request(bytes);
}

void operator delete(void* p) noexcept {
    std::free(p);
}

void operator delete[](void* p) noexcept {
    std::free(p);
}

void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}
