//  The plan of the fault shim: counts calls and decides which ones fail.
#include <fcntl.h>
#include <link.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "failshim.h"

namespace failshim {

namespace {

enum class How : std::uint8_t { never, once, always, stop };

char g_function[32];
unsigned g_nth = 0;
How g_how = How::never;
int g_error = 0;
bool g_in_child = false;

bool g_is_child = false;
std::atomic<unsigned> g_calls{0};

std::uintptr_t g_begin = 0;
std::uintptr_t g_end = 0;

//  The first object in the list of dl_iterate_phdr is the executable.
int find_executable(dl_phdr_info* info, size_t, void*) {
    g_begin = UINTPTR_MAX;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const auto& header = info->dlpi_phdr[i];
        if (header.p_type != PT_LOAD) {
            continue;
        }
        const std::uintptr_t start = info->dlpi_addr + header.p_vaddr;
        g_begin = start < g_begin ? start : g_begin;
        g_end = start + header.p_memsz > g_end ? start + header.p_memsz : g_end;
    }
    return 1;
}

How how_of(const char* word) {
    if (strcmp(word, "once") == 0) {
        return How::once;
    }
    if (strcmp(word, "always") == 0) {
        return How::always;
    }
    return strcmp(word, "stop") == 0 ? How::stop : How::never;
}

__attribute__((constructor)) void read_plan() {
    const char* const plan = getenv("FAILSHIM_PLAN");
    if (plan == nullptr || *plan == '\0') {
        return;
    }
    char how[8];
    char where[8];
    if (sscanf(plan, "%31s %u %7s %d %7s", g_function, &g_nth, how, &g_error, where) != 5 ||
        how_of(how) == How::never) {
        abort();
    }
    g_in_child = strcmp(where, "child") == 0;
    dl_iterate_phdr(find_executable, nullptr);
    g_how = how_of(how);
}

//  Reports that this call was reached. Makes system calls directly, because the shim replaces the library's functions.
void report(unsigned call) {
    const char* const path = getenv("FAILSHIM_REACHED");
    if (path == nullptr) {
        return;
    }
    char line[64];
    const int length = snprintf(line, sizeof line, "%s %u\n", g_function, call);
    const long fd = syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    syscall(SYS_write, fd, line, length);
    syscall(SYS_close, fd);
}

}  // namespace

bool strikes(const char* function, const void* caller) {
    const auto address = reinterpret_cast<std::uintptr_t>(caller);
    if (g_how == How::never || g_is_child != g_in_child || address < g_begin || address >= g_end ||
        strcmp(function, g_function) != 0) {
        return false;
    }
    const unsigned call = ++g_calls;
    if (call < g_nth || (call > g_nth && g_how != How::always)) {
        return false;
    }
    report(call);
    if (g_how == How::stop) {
        raise(SIGSTOP);
        return false;
    }
    errno = g_error;
    return true;
}

int error() {
    return g_error;
}

void begin_child() {
    g_is_child = true;
    g_calls = 0;
}

}  // namespace failshim
