//  The things that are measured, and what they are measured beside.
//
//  A case does one thing so many times in a loop of its own, so that whoever measures it adds nothing to it: Debian's
//  Google Benchmark is a debug build, and its own loop would show in a few nanoseconds. Cases are named
//  topic/who[/argument...]; "olk" is this project.
//
//  Threads: for one thread; a case may start its own.
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
    std::size_t batch;  // so many times at a call; large enough that a call takes microseconds
    work run;
};

//  All cases of the program, in the order in which they were added.
std::vector<measured_case>& cases();

//  Adds a case. Call it before main. Returns true, for the initialiser that it is called from.
bool add(std::string name, std::size_t batch, work run);

//  Keeps the compiler from dropping what value was made for.
template <class T>
inline void keep(const T& value) {
    asm volatile("" : : "r,m"(value) : "memory");
}

//  Keeps the compiler from knowing value from before.
template <class T>
inline void forget_what_is_known(T& value) {
    asm volatile("" : "+r"(value) : : "memory");
}

}  // namespace bench

#endif
