#include "fake_process.h"

#include "exitsignal.h"
#include "olk_allocator.h"
#include "runcls.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>

#include <sys/mman.h>
#include <sys/msg.h>
#include <unistd.h>

namespace {

FakeProcess* the_fake = nullptr;
constexpr int pid_file_in_place = -1;

template <class... PARTS>
void note(const PARTS&... parts) {
    std::ostringstream line;
    const char* blank = "";
    ((line << blank << parts, blank = " "), ...);
    the_fake->note(line.str());
}

}  // namespace

extern "C" {
pid_t __real_fork();
pid_t __real_setsid();
int __real_chdir(const char*);
mode_t __real_umask(mode_t);
int __real_dup2(int, int);
int __real_open(const char*, int, ...);
int __real_close(int);
int __real_fcntl(int, int, ...);
int __real_msgget(key_t, int);
int __real_msgsnd(int, const void*, size_t, int);
ssize_t __real_msgrcv(int, void*, size_t, long, int);
int __real_msgctl(int, int, msqid_ds*);
int __real_usleep(useconds_t);
unsigned __real_sleep(unsigned);
int __real_kill(pid_t, int);
sighandler_t __real_signal(int, sighandler_t);
[[noreturn]] void __real_exit(int);
bool __real__ZN7CRunCls5startEv(CRunCls*);
void __real__ZN7CRunCls11publishOnceEv(CRunCls*);
void* __real__ZN3olk9allocator7malloc_EmPm(olk::allocator*, size_t, size_t*);
void __real__ZN3olk9allocator5free_EPv(olk::allocator*, void*);

pid_t __wrap_fork() {
    if (the_fake == nullptr)
        return __real_fork();
    note("fork");
    return the_fake->forked;
}

pid_t __wrap_setsid() {
    if (the_fake == nullptr)
        return __real_setsid();
    note("setsid");
    return 1;
}

int __wrap_chdir(const char* path) {
    if (the_fake == nullptr)
        return __real_chdir(path);
    note("chdir", path);
    return the_fake->chdir_result;
}

mode_t __wrap_umask(mode_t mask) {
    if (the_fake == nullptr)
        return __real_umask(mask);
    note("umask", mask);
    return 022;
}

int __wrap_dup2(int from, int to) {
    if (the_fake == nullptr)
        return __real_dup2(from, to);
    note("dup2", from, to);
    return to;
}

int __wrap_open(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    if (the_fake == nullptr)
        return __real_open(path, flags, mode);
    if (std::strcmp(path, "/dev/null") == 0) {
        note("open /dev/null", flags == O_RDWR ? "for both" : "otherwise");
        return the_fake->null_device;
    }
    if (std::strcmp(path, the_fake->daemon.pid_path) != 0)
        return __real_open(path, flags, mode);
    if (the_fake->pid_file_refused && the_fake->pid_file_refused(++the_fake->openings))
        return -1;
    return the_fake->pid_file = __real_open(path, flags, mode);
}

int __wrap_close(int fd) {
    if (the_fake == nullptr)
        return __real_close(fd);
    if (fd == the_fake->null_device || (fd >= 0 && fd <= STDERR_FILENO)) {
        note("close", fd);
        return 0;
    }
    if (fd == the_fake->pid_file) {
        the_fake->pid_file = -1;
        note("close pid file");
    }
    return __real_close(fd);
}

int __wrap_fcntl(int fd, int command, ...) {
    va_list args;
    va_start(args, command);
    auto* const argument = va_arg(args, void*);
    va_end(args);
    if (the_fake == nullptr || fd != the_fake->pid_file)
        return __real_fcntl(fd, command, argument);
    if (command == F_SETLKW)
        note("claim pid file");
    if (command != F_GETLK || !the_fake->lock)
        return __real_fcntl(fd, command, argument);
    const FakeProcess::Lock answer = the_fake->lock(++the_fake->looks);
    if (answer.type == -1)
        return -1;
    auto* const asked = static_cast<struct flock*>(argument);
    asked->l_type = static_cast<short>(answer.type);
    if (answer.type != F_UNLCK)
        asked->l_pid = answer.pid;
    return 0;
}

int __wrap_msgget(key_t key, int flags) {
    if (the_fake == nullptr)
        return __real_msgget(key, flags);
    note("msgget", key, flags == (IPC_CREAT | 0666) ? "create 666" : "otherwise");
    return the_fake->queue;
}

int __wrap_msgsnd(int id, const void* message, size_t size, int flags) {
    if (the_fake == nullptr)
        return __real_msgsnd(id, message, size, flags);
    long type = 0;
    std::memcpy(&type, message, sizeof type);
    const std::string bytes(static_cast<const char*>(message) + sizeof type, size);
    the_fake->sent.push_back(bytes);
    the_fake->sent_types.push_back(type);
    the_fake->flags.push_back(flags == IPC_NOWAIT ? "no wait" : "otherwise");
    std::string shown = bytes.c_str();
    for (std::size_t at = 0; (at = shown.find_first_of("\n\r")) != std::string::npos;)
        shown[at] = '|';
    note("msgsnd", id, shown);
    return the_fake->send_result;
}

ssize_t __wrap_msgrcv(int id, void* message, size_t size, long type, int flags) {
    if (the_fake == nullptr)
        return __real_msgrcv(id, message, size, type, flags);
    the_fake->receptions.emplace_back(size, type);
    the_fake->flags.push_back(flags == IPC_NOWAIT ? "no wait" : "otherwise");
    const auto found = the_fake->incoming.find(the_fake->polls);
    if (found == the_fake->incoming.end()) {
        errno = ENOMSG;
        return -1;
    }
    if (found->second.bytes.size() > size) {
        errno = E2BIG;
        return -1;
    }
    note("msgrcv", id);
    const long other_type = 77;
    std::memcpy(message, &other_type, sizeof other_type);
    found->second.bytes.copy(static_cast<char*>(message) + sizeof other_type, size);
    return static_cast<ssize_t>(found->second.bytes.size());
}

int __wrap_msgctl(int id, int command, msqid_ds* data) {
    if (the_fake == nullptr)
        return __real_msgctl(id, command, data);
    note("msgctl", id, command == IPC_RMID ? "remove" : "otherwise");
    return 0;
}

int __wrap_usleep(useconds_t microseconds) {
    if (the_fake == nullptr)
        return __real_usleep(microseconds);
    if (microseconds != 100'000)
        note("usleep", microseconds);
    ++the_fake->polls;
    return 0;
}

unsigned __wrap_sleep(unsigned seconds) {
    if (the_fake == nullptr)
        return __real_sleep(seconds);
    if (seconds != 1)
        note("sleep", seconds);
    the_fake->seconds_slept += static_cast<int>(seconds);
    return 0;
}

int __wrap_kill(pid_t pid, int signal) {
    if (the_fake == nullptr)
        return __real_kill(pid, signal);
    note("kill", pid, signal);
    return 0;
}

sighandler_t __wrap_signal(int number, sighandler_t handler) {
    if (the_fake == nullptr)
        return __real_signal(number, handler);
    note("signal", number, handler == &onExitSignal ? "onExitSignal" : "otherwise");
    return SIG_DFL;
}

void __wrap_exit(int status) {
    if (the_fake == nullptr || !the_fake->exit_armed)
        __real_exit(status);
    note("exit", status);
    the_fake->exit_status = status;
    std::longjmp(the_fake->exit_point, 1);
}

//  CRunCls::start() and CRunCls::publishOnce().
bool __wrap__ZN7CRunCls5startEv(CRunCls* self) {
    if (the_fake == nullptr)
        return __real__ZN7CRunCls5startEv(self);
    note("start service");
    the_fake->run = self;
    std::fputs(the_fake->start_prints.c_str(), stdout);
    return the_fake->starts;
}

void __wrap__ZN7CRunCls11publishOnceEv(CRunCls* self) {
    if (the_fake == nullptr)
        return __real__ZN7CRunCls11publishOnceEv(self);
    if (the_fake->turns-- == 0)
        throw LoopLeft{};
    note("publish", self == the_fake->run ? "of the started object" : "of another object");
}

//  olk::allocator::malloc_(size_t, size_t*) and olk::allocator::free_(void*).
void* __wrap__ZN3olk9allocator7malloc_EmPm(olk::allocator* self, size_t size, size_t* outsize) {
    if (the_fake != nullptr) {
        ++the_fake->pool_requests;
        if (the_fake->pool_left-- <= 0)
            return nullptr;
        ++the_fake->pool_blocks;
    }
    return __real__ZN3olk9allocator7malloc_EmPm(self, size, outsize);
}

void __wrap__ZN3olk9allocator5free_EPv(olk::allocator* self, void* block) {
    if (the_fake != nullptr && block != nullptr)
        --the_fake->pool_blocks;
    __real__ZN3olk9allocator5free_EPv(self, block);
}
}

FakeProcess::FakeProcess() {
    char name[] = "/tmp/addrpubd-control-XXXXXX";
    folder = mkdtemp(name);
    std::snprintf(daemon.pid_path, sizeof daemon.pid_path, "%s/service.pid", folder.c_str());
    std::strcpy(daemon.service_name, "theservice");
    daemon.msg_key = 23213;
    the_fake = this;
}

FakeProcess::~FakeProcess() {
    the_fake = nullptr;
    delete static_cast<CRunCls*>(run);
    if (pid_file != pid_file_in_place)
        __real_close(pid_file);
    std::remove(daemon.pid_path);
    rmdir(folder.c_str());
}

void FakeProcess::note(std::string line) {
    if (on_call)
        on_call(line);
    calls.push_back(std::move(line));
}

Lines FakeProcess::take_calls() {
    return std::exchange(calls, {});
}

void FakeProcess::write_pid_file(const std::string& text) const {
    std::ofstream(daemon.pid_path, std::ios::binary | std::ios::trunc) << text;
}

std::string FakeProcess::output_of(const std::function<void()>& body) {
    std::fflush(stdout);
    const int memory = memfd_create("stdout", MFD_CLOEXEC);
    const int saved = dup(STDOUT_FILENO);
    __real_dup2(memory, STDOUT_FILENO);
    body();
    std::fflush(stdout);
    __real_dup2(saved, STDOUT_FILENO);
    std::string text(static_cast<std::size_t>(lseek(memory, 0, SEEK_END)), '\0');
    if (pread(memory, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
        std::abort();
    __real_close(saved);
    __real_close(memory);
    return text;
}

std::optional<int> FakeProcess::start() {
    std::optional<int> result;
    print = output_of([this, &result] {
        if (setjmp(exit_point) != 0)
            return;
        exit_armed = true;
        try {
            result = daemon.start();
        } catch (const LoopLeft&) {
            exit_armed = false;
        }
    });
    exit_armed = false;
    return result;
}
