//  A child process that is stopped at a chosen instruction and gets a signal there (ptrace(2), x86-64).
//
//  All children are forked from one process at the same point. So until their signal they execute almost the same
//  instructions at the same addresses. One child is single-stepped to find these addresses.
//
//  Threads: all calls of the parent must be made by one thread.
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
    //  The constructor forks a child that runs body, and waits until body has called ready().
    static void ready();
    explicit TracedChild(const std::function<void()>& body);
    //  Ends the child if it still exists.
    ~TracedChild();
    TracedChild(const TracedChild&) = delete;
    TracedChild& operator=(const TracedChild&) = delete;

    //  Executes count single steps. Returns how often each address was executed.
    std::map<std::uintptr_t, unsigned> walk(std::size_t count);

    //  Runs until the instruction at address is about to be executed for the nth time, starting from 1. Returns false
    //  if no breakpoint can be set there, or if the child ends first.
    bool runTo(std::uintptr_t address, unsigned nth);

    //  Reads a word of the child's memory. The address is the same in this process.
    int wordAt(const volatile void* address) const;

    //  Continues the child with signal_number. Returns its exit status, or the negative number of the signal that ended
    //  it, or nothing if it still runs after hang_seconds.
    std::optional<int> goOnWith(int signal_number, int hang_seconds);

private:
    bool step();
    void await();

    pid_t pid_;
    int status_ = 0;  // status of the last wait
};

#endif
