//  The measured cases.
//
//  A case makes one operation many times in its own loop, so that the measuring tool adds no cost. Debian's Google
//  Benchmark is a debug build, and its loop would be visible in the time of a short operation. A case is named
//  topic/who[/argument...]. The part "who" starts with "olk" for this project's code; in the topic "threads" it is the
//  number of threads.
//
//  Threads: cases run on one thread at a time. A case may start threads itself.
#ifndef BENCH_CASES_H
#define BENCH_CASES_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace bench {

using work = std::function<void(std::size_t times)>;

struct measured_case {
    std::string name;
    std::size_t batch;  // operations per call of run; with so many, the cost of the call itself is not visible
    work run;
};

//  All cases of the program, in the order in which they were added.
std::vector<measured_case>& cases();

//  Adds a case. Must be called before main. Returns true, so that the call can initialise a variable.
bool add(std::string name, std::size_t batch, work run);

//  Makes the compiler assume that value is read, so that it does not remove the computation of value.
template <class T>
inline void keep(const T& value) {
    asm volatile("" : : "r,m"(value) : "memory");
}

//  Makes the compiler assume that value changes, so that it does not use what it knows about value.
template <class T>
inline void forget(T& value) {
    asm volatile("" : "+r"(value) : : "memory");
}

}  // namespace bench

#endif
