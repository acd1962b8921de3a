//  The interface of the fault shim, which is preloaded into the executable. It makes the n-th call of one function
//  fail. It counts only calls by the executable itself, not those of libraries.
//
//  FAILSHIM_PLAN    "FUNCTION NTH HOW ERROR WHERE", or empty for no failure
//
//      FUNCTION     a function in failshim.cpp
//      NTH          number of the first call that fails, counted from 1 among the process's calls of the function
//      HOW          once: only this call; always: this and all later calls; stop: SIGSTOP before this call
//      ERROR        the value of errno, or of the result if the function returns errors; 0 for a result that
//                   is short but not an error, such as nothing written
//      WHERE        first: the process that was started; child: a process that it forked, with new counts
//
//  FAILSHIM_REACHED file to which the line "FUNCTION NUMBER\n" is appended for each call that fails or is stopped.
//                   NUMBER is that of the call, counted from 1.
//
//  A failing call has no effect. The exceptions are close and fclose, which close the descriptor or the stream, as the
//  system's functions do (close(2), "Dealing with error returns from close()").
//
//  Threads: any thread may call the functions. The counts are those of the whole process.
#ifndef TESTS_SUPPORT_FAILSHIM_H
#define TESTS_SUPPORT_FAILSHIM_H

#include <cstdint>

namespace failshim {

//  Counts one call of `function`; `caller` is the return address of the call. Returns true and sets errno if the call
//  must fail. If the plan requires a stop before this call, stops the process, then returns false.
bool strikes(const char* function, const void* caller);

//  Returns the planned error.
int error();

//  Restarts the counts. A child must call this after fork.
void begin_child();

}  // namespace failshim

#endif
