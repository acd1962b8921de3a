//  A child process that is stopped at a chosen instruction and gets a signal there (ptrace(2), x86-64).
//
//  All children are forks of one process at one point, so they take nearly the same steps at the same addresses up to
//  their signal. One of them is walked through instruction by instruction, which gives the addresses.
//
//  Threads: the parent's calls all come from one thread.
#ifndef TRACED_CHILD_H
#define TRACED_CHILD_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <vector>

#include <sys/types.h>

class TracedChild {
public:
    //  Forks a child that runs body, and waits until body has called ready().
    static void ready();
    explicit TracedChild(const std::function<void()>& body);
    //  Ends a child that is still there.
    ~TracedChild();
    TracedChild(const TracedChild&) = delete;
    TracedChild& operator=(const TracedChild&) = delete;

    //  Takes count steps of one instruction each. Returns how often each address was executed.
    std::map<std::uintptr_t, unsigned> walk(std::size_t count);

    //  Runs until the instruction at address is about to be executed for the nth time, counted from 1. Returns false
    //  when no breakpoint can be set there, or when the child ended before.
    bool runTo(std::uintptr_t address, unsigned nth);

    //  Reads a word of the child's memory, which is where it is in this process, too.
    int wordAt(const volatile void* address) const;

    //  Lets the child go on with signal_number. Returns its exit status, minus the signal that ended it, or nothing when
    //  it is still there after hang_seconds.
    std::optional<int> goOnWith(int signal_number, int hang_seconds);

private:
    bool step();
    void await();

    pid_t pid_;
    int status_ = 0;  // of the last wait
};

#endif
