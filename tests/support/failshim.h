//  What the fault shim reads and writes. It is preloaded into the executable and lets the n-th call of one function fail;
//  only calls that the executable itself makes are counted, never those of libraries.
//
//  FAILSHIM_PLAN    "FUNCTION NTH HOW ERROR WHERE", or empty for no failure
//
//      FUNCTION     a name of failshim.cpp
//      NTH          the call that it begins with, from 1, among the calls of the function in its process
//      HOW          once: this call alone; always: this one and all later ones; stop: SIGSTOP before this call
//      ERROR        what errno becomes, or what the function returns where an error is its result; 0 for a result that
//                   is short without being an error, such as nothing written
//      WHERE        first: the process that the executable began as; child: one that it forked, which counts anew
//
//  FAILSHIM_REACHED file to which a line is appended whenever the plan strikes: "FUNCTION NTH\n"
//
//  A call that fails does nothing, except close, which gives the descriptor back all the same as the system's own does
//  (close(2), "Dealing with error returns from close()"). SIGSTOP is the way to hold a process between two of its calls.
//
//  Threads: all functions from any thread; the count is one for the whole process.
#ifndef TESTS_SUPPORT_FAILSHIM_H
#define TESTS_SUPPORT_FAILSHIM_H

#include <cstdint>

namespace failshim {

//  Counts one call of function, whose caller is at the address. Returns true when it is to fail; errno is set then.
//  With stop the process is stopped first, and the call goes on.
bool strikes(const char* function, const void* caller);

//  The planned error.
int error();

//  To be called in a child after fork.
void begin_child();

}  // namespace failshim

#endif
