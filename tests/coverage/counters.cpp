//  Linked into every program of a coverage build. When the program ends, it adds the counters of executed code to
//  files.
//
//  The compiler's own run-time library is not suitable. It uses the C library, whose functions the tests replace. It
//  writes to standard error if it cannot write a file. It loses the counters if the program ends by _exit or a failed
//  assertion. This file makes system calls directly, so no replacement intercepts them, and the program imports no
//  additional function. A file that cannot be opened is silently skipped.
//
//      COUNTERS_FOLDER/PROGRAM/-build-folder-of-the-object.gcda
//
//  There is one file for each object file of each program, in the format of gcov (gcov-io.h of GCC 12). All counters
//  are written, so that the next run finds each counter at the same offset. flock serialises concurrent processes.
//
//  Code is not counted if its process was killed or executed another program.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/syscall.h>

extern "C" {
#include <gcov.h>

//  The compiler's list of object files is between these two symbols. Both are null in a program without counted object
//  files.
__attribute__((weak)) extern const gcov_info* const __start_coverage_info[];
__attribute__((weak)) extern const gcov_info* const __stop_coverage_info[];
}

namespace {

constexpr std::uint32_t function_tag = 0x01000000;
constexpr std::uint32_t arcs_tag = 0x01a10000;
constexpr std::size_t longest_path = 1024;

long systemCall(long number, long a = 0, long b = 0, long c = 0, long d = 0) {
    long result;
    asm volatile("mov %5, %%r10\n\tsyscall"
                 : "=a"(result)
                 : "a"(number), "D"(a), "S"(b), "d"(c), "r"(d)
                 : "rcx", "r10", "r11", "memory");
    return result;
}

long address(const void* p) {
    return reinterpret_cast<long>(p);
}

//  The counter file of one object file; libgcov passes its contents in pieces.
struct Stream {
    char path[longest_path];
    std::size_t path_length;
    std::size_t size;
    std::uint64_t bytes[1 << 17];
    std::uint64_t kept[1 << 17];

    char* begin() { return reinterpret_cast<char*>(bytes); }
    char* old() { return reinterpret_cast<char*>(kept); }
};

Stream g_stream;
bool g_done = false;

std::uint32_t wordAt(const char* place) {
    std::uint32_t word;
    std::memcpy(&word, place, sizeof word);
    return word;
}

void appendToPath(const char* text, std::size_t length) {
    if (g_stream.path_length + length >= longest_path)
        length = longest_path - 1 - g_stream.path_length;
    for (std::size_t i = 0; i < length; ++i)
        g_stream.path[g_stream.path_length++] = text[i];
    g_stream.path[g_stream.path_length] = 0;
}

//  Creates this program's folder if it does not exist.
void beginPath() {
    g_stream.path_length = 0;
    appendToPath(COUNTERS_FOLDER, sizeof COUNTERS_FOLDER - 1);
    char program[longest_path];
    const long length = systemCall(SYS_readlink, address("/proc/self/exe"), address(program), sizeof program);
    long name = length;
    while (name > 0 && program[name - 1] != '/')
        --name;
    appendToPath("/", 1);
    if (length > name)
        appendToPath(program + name, static_cast<std::size_t>(length - name));
    if (systemCall(SYS_mkdir, address(g_stream.path), 0777) == 0)
        systemCall(SYS_chmod, address(g_stream.path), 0777);
    appendToPath("/", 1);
}

//  Called once per object, with the path that the compiler recorded.
void nameObject(const char* file, void*) {
    const std::size_t start = g_stream.path_length;
    appendToPath(file, std::strlen(file));
    for (std::size_t i = start; i < g_stream.path_length; ++i)
        if (g_stream.path[i] == '/')
            g_stream.path[i] = '-';
}

void takePiece(const void* piece, unsigned length, void*) {
    if (g_stream.size + length <= sizeof g_stream.bytes)
        std::memcpy(g_stream.begin() + g_stream.size, piece, length);
    g_stream.size += length;
}

//  Required for counters of values, which this build does not have.
void* noMemory(unsigned, void*) {
    return nullptr;
}

//  Writes zero counters for functions that were not executed; for these, the input has only a negative length. Returns
//  false if there is not enough room.
bool writeOutZeros() {
    std::memcpy(g_stream.kept, g_stream.bytes, g_stream.size);
    const char* from = g_stream.old();
    const char* const end = from + g_stream.size;
    char* to = g_stream.begin();
    const auto copy = [&](std::size_t length) {
        std::memcpy(to, from, length);
        from += length;
        to += length;
    };
    copy(16);  // magic, version, stamp, checksum
    while (from + 8 <= end) {
        const std::uint32_t tag = wordAt(from);
        const auto length = static_cast<std::int32_t>(wordAt(from + 4));
        copy(8);
        if (tag != arcs_tag || length >= 0) {
            copy(length < 0 ? 0 : static_cast<std::size_t>(length));
            continue;
        }
        const std::int32_t zeros = -length;
        if (to - g_stream.begin() + zeros + (end - from) > static_cast<std::ptrdiff_t>(sizeof g_stream.bytes))
            return false;
        std::memcpy(to - 4, &zeros, sizeof zeros);
        std::memset(to, 0, static_cast<std::size_t>(zeros));
        to += zeros;
    }
    g_stream.size = static_cast<std::size_t>(to - g_stream.begin());
    return true;
}

//  Adds the counters of the existing file to the counters of this process.
void addKept() {
    for (std::size_t place = 16; place + 8 <= g_stream.size;) {
        const std::uint32_t tag = wordAt(g_stream.begin() + place);
        const std::uint32_t length = wordAt(g_stream.begin() + place + 4);
        place += 8;
        for (std::size_t i = 0; tag == arcs_tag && i < length; i += 8) {
            std::uint64_t now;
            std::uint64_t before;
            std::memcpy(&now, g_stream.begin() + place + i, sizeof now);
            std::memcpy(&before, g_stream.old() + place + i, sizeof before);
            now += before;
            std::memcpy(g_stream.begin() + place + i, &now, sizeof now);
        }
        place += length;
    }
}

//  Returns false if the linker has removed all functions of this object file.
bool hasFunctions() {
    for (std::size_t place = 16; place + 8 <= g_stream.size;) {
        const std::uint32_t length = wordAt(g_stream.begin() + place + 4);
        if (wordAt(g_stream.begin() + place) == function_tag && length != 0)
            return true;
        place += 8 + length;
    }
    return false;
}

void keepObject(const gcov_info* object, std::size_t folder_length) {
    g_stream.path_length = folder_length;
    g_stream.size = 0;
    __gcov_info_to_gcda(object, nameObject, takePiece, noMemory, nullptr);
    if (g_stream.size > sizeof g_stream.bytes || !writeOutZeros() || !hasFunctions())
        return;
    const long fd = systemCall(SYS_open, address(g_stream.path), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0)
        return;
    systemCall(SYS_flock, fd, LOCK_EX);
    const auto size = static_cast<long>(g_stream.size);
    if (systemCall(SYS_pread64, fd, address(g_stream.kept), size, 0) == size)
        addKept();
    else
        systemCall(SYS_fchmod, fd, 0666);
    systemCall(SYS_pwrite64, fd, address(g_stream.bytes), size, 0);
    systemCall(SYS_close, fd);
}

//  Nothing may interrupt this function, neither a signal handler nor the signal for a file that exceeds its size limit.
void keepCounters() {
    if (__atomic_exchange_n(&g_done, true, __ATOMIC_SEQ_CST))
        return;
    const std::uint64_t all = ~std::uint64_t{0};
    std::uint64_t before = 0;
    systemCall(SYS_rt_sigprocmask, SIG_SETMASK, address(&all), address(&before), sizeof all);
    beginPath();
    const std::size_t folder_length = g_stream.path_length;
    for (const gcov_info* const* object = __start_coverage_info; object != __stop_coverage_info; ++object)
        keepObject(*object, folder_length);
    systemCall(SYS_rt_sigprocmask, SIG_SETMASK, address(&before), 0, sizeof before);
}

}  // namespace

extern "C" {

//  The last destructor of the program. coverage.cmake makes the linker include it.
__attribute__((destructor(101))) void addrpubdKeepCountersAtExit() {
    keepCounters();
}

//  The compiler generates a reference to this function for each counter. It is never called.
__attribute__((visibility("hidden"))) void __gcov_merge_add(std::int64_t*, unsigned) {}

//  The linker redirects calls of _exit, abort and __assert_fail to the three functions below.
[[noreturn]] void __wrap__exit(int status) {
    keepCounters();
    for (;;)
        systemCall(SYS_exit_group, status);
}

[[noreturn]] void __real_abort();
[[noreturn]] void __wrap_abort() {
    keepCounters();
    __real_abort();
}

[[noreturn]] void __real___assert_fail(const char*, const char*, unsigned, const char*);
[[noreturn]] void __wrap___assert_fail(const char* text, const char* file, unsigned line, const char* function) {
    keepCounters();
    __real___assert_fail(text, file, line, function);
}
}
