#include "traced_child.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>

#include <sys/ptrace.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr long breakpoint = 0xcc;  // int3
constexpr long first_byte = 0xff;

user_regs_struct registersOf(pid_t pid) {
    user_regs_struct registers = {};
    ptrace(PTRACE_GETREGS, pid, nullptr, &registers);
    return registers;
}

}  // namespace

TracedChild::TracedChild(const std::function<void()>& body) : pid_(fork()) {
    if (pid_ == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        body();
        _exit(99);
    }
    await();
    ptrace(PTRACE_SETOPTIONS, pid_, nullptr, PTRACE_O_EXITKILL);
}

void TracedChild::ready() {
    raise(SIGSTOP);
}

TracedChild::~TracedChild() {
    if (WIFEXITED(status_) || WIFSIGNALED(status_))
        return;
    kill(pid_, SIGKILL);
    await();
}

void TracedChild::await() {
    if (waitpid(pid_, &status_, 0) != pid_)
        std::abort();
}

bool TracedChild::step() {
    ptrace(PTRACE_SINGLESTEP, pid_, nullptr, nullptr);
    await();
    return WIFSTOPPED(status_);
}

std::map<std::uintptr_t, unsigned> TracedChild::walk(std::size_t count) {
    std::map<std::uintptr_t, unsigned> executed;
    for (; count > 0; --count) {
        ++executed[registersOf(pid_).rip];
        if (!step())
            std::abort();
    }
    return executed;
}

bool TracedChild::runTo(std::uintptr_t address, unsigned nth) {
    const auto place = reinterpret_cast<void*>(address);
    errno = 0;
    const long code = ptrace(PTRACE_PEEKTEXT, pid_, place, nullptr);
    for (; errno == 0 && nth > 0; --nth) {
        if (ptrace(PTRACE_POKETEXT, pid_, place, (code & ~first_byte) | breakpoint) != 0)
            return false;
        ptrace(PTRACE_CONT, pid_, nullptr, nullptr);
        await();
        if (WIFEXITED(status_))
            return false;
        if (!WIFSTOPPED(status_) || WSTOPSIG(status_) != SIGTRAP)
            std::abort();
        user_regs_struct registers = registersOf(pid_);
        registers.rip = address;
        ptrace(PTRACE_SETREGS, pid_, nullptr, &registers);
        ptrace(PTRACE_POKETEXT, pid_, place, code);
        if (nth > 1 && !step())
            std::abort();
    }
    return errno == 0;
}

int TracedChild::wordAt(const volatile void* address) const {
    return static_cast<int>(ptrace(PTRACE_PEEKDATA, pid_, address, nullptr));
}

std::optional<int> TracedChild::goOnWith(int signal_number, int hang_seconds) {
    ptrace(PTRACE_DETACH, pid_, nullptr, signal_number);
    constexpr timespec look = {0, 100'000};
    timespec begun = {}, now = {};
    clock_gettime(CLOCK_MONOTONIC, &begun);
    while (waitpid(pid_, &status_, WNOHANG) == 0) {
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (now.tv_sec - begun.tv_sec > hang_seconds) {
            status_ = 0x7f;  // the same value as for a stopped child: it still exists
            return std::nullopt;
        }
        clock_nanosleep(CLOCK_MONOTONIC, 0, &look, nullptr);
    }
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -WTERMSIG(status_);
}
