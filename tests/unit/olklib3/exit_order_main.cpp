#include "exit_order.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/types.h>
#include <unistd.h>

void write_line(const char* what) {
    char line[200];
    const int length = std::snprintf(line, sizeof line, "%s\n", what);
    if (write(STDOUT_FILENO, line, static_cast<size_t>(length)) != length)
        std::abort();
}

void write_line(const char* what, unsigned long long first, unsigned long long second) {
    char line[200];
    std::snprintf(line, sizeof line, "%s %llx %lld", what, first, static_cast<long long>(second));
    write_line(line);
}

extern "C" {

void* __real_mmap(void* hint, size_t length, int prot, int flags, int fd, off_t offset);
int __real_munmap(void* address, size_t length);
int __real_mallopt(int parameter, int value);

void* __wrap_mmap(void* hint, size_t length, int prot, int flags, int fd, off_t offset) {
    void* mapping = __real_mmap(hint, length, prot, flags, fd, offset);
    write_line("mmap", reinterpret_cast<uintptr_t>(mapping), length);
    return mapping;
}

int __wrap_munmap(void* address, size_t length) {
    write_line("munmap", reinterpret_cast<uintptr_t>(address), length);
    return __real_munmap(address, length);
}

int __wrap_mallopt(int parameter, int value) {
    char line[60];
    std::snprintf(line, sizeof line, "mallopt %d %d", parameter, value);
    write_line(line);
    return __real_mallopt(parameter, value);
}

}  // extern "C"

keeper::keeper(const char* name)
    : name_(name), text_(name), small_(olk::get_olk_allocator()->malloc_(40, nullptr)),
      large_(olk::get_olk_allocator()->malloc_(4194305, nullptr)) {
    if (olk::get_olk_allocator()->classcount != 30)
        write_line("the table is not there yet");
    std::memset(small_, 's', 40);
    std::memset(large_, 'l', 4194305);
    for (int i = 0; i < 1000; ++i)
        text_.push_back('+');
    char line[60];
    std::snprintf(line, sizeof line, "built %s", name_);
    write_line(line);
}

keeper::~keeper() {
    if (olk::get_olk_allocator()->classcount != 30)
        write_line("the table is gone already");
    const char* small = static_cast<const char*>(small_);
    const char* large = static_cast<const char*>(large_);
    if (small[0] != 's' || small[39] != 's' || large[0] != 'l' || large[4194304] != 'l' ||
        text_.size() != std::strlen(name_) + 1000)
        write_line("contents are damaged");
    olk::get_olk_allocator()->free_(small_);
    olk::get_olk_allocator()->free_(large_);
    text_.push_back('!');
    char line[60];
    std::snprintf(line, sizeof line, "gone %s", name_);
    write_line(line);
}

namespace {

keeper global("main file");

}  // namespace

int main() {
    static keeper in_function("static of main");
    std::atexit([] { write_line("exit handler"); });
    olk::get_olk_allocator()->malloc_(5000000, nullptr);
    write_line("main");
    return 0;
}
