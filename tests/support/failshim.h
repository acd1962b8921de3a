//  The interface of the fault shim. It is preloaded into the executable and makes the n-th call of one function fail.
//  Only calls by the executable itself are counted, not those of libraries.
//
//  FAILSHIM_PLAN    "FUNCTION NTH HOW ERROR WHERE", or empty for no failure
//
//      FUNCTION     a function in failshim.cpp
//      NTH          the first call that fails, from 1, among the calls of the function in the process
//      HOW          once: only this call; always: this and all later calls; stop: SIGSTOP before this call
//      ERROR        the value of errno, or of the result if the function returns errors; 0 for a result that
//                   is short but not an error, such as nothing written
//      WHERE        first: the process that was started; child: a process that it forked, with new counts
//
//  FAILSHIM_REACHED file to which the line "FUNCTION NTH\n" is appended for each call that is made to fail.
//
//  A call that fails has no effect, except close, which closes the descriptor as the system's close does (close(2),
//  "Dealing with error returns from close()"). SIGSTOP holds a process between two of its calls.
//
//  Threads: any thread may call the functions; the whole process has one count.
#ifndef TESTS_SUPPORT_FAILSHIM_H
#define TESTS_SUPPORT_FAILSHIM_H

#include <cstdint>

namespace failshim {

//  Counts one call of function from the address caller. Returns true if it must fail, and sets errno. If the plan is
//  "stop", stops the process, then returns false.
bool strikes(const char* function, const void* caller);

//  Returns the planned error.
int error();

//  Call it in a child after fork.
void begin_child();

}  // namespace failshim

#endif
