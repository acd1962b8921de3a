//  push_back and append, from an empty string to a text of the given length, beside the standard string.
#include "olk_string.h"

#include <benchmark/benchmark.h>

#include <string>

namespace {

template <class STRING>
void push_back(benchmark::State& state) {
    const int64_t length = state.range(0);
    for (auto _ : state) {
        STRING s;
        for (int64_t i = 0; i < length; ++i)
            s.push_back('x');
        benchmark::DoNotOptimize(s.data());
    }
}

//  Appends the length of an address at a time.
template <class STRING>
void append(benchmark::State& state) {
    static const char piece[] = "2001:db8:1234:5678:9abc:def0:1234";
    const size_t piece_length = sizeof piece - 1;
    const auto length = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        STRING s;
        while (s.size() < length)
            s.append(piece, piece_length);
        benchmark::DoNotOptimize(s.data());
    }
}

template <class STRING>
void terminate(benchmark::State& state) {
    STRING s("2001:db8::1");
    for (auto _ : state) {
        benchmark::DoNotOptimize(s.c_str());
        benchmark::ClobberMemory();
    }
}

BENCHMARK(push_back<olk::string>)->Name("push_back/olk")->Arg(12)->Arg(400)->Arg(20000);
BENCHMARK(push_back<std::string>)->Name("push_back/std")->Arg(12)->Arg(400)->Arg(20000);
BENCHMARK(append<olk::string>)->Name("append/olk")->Arg(33)->Arg(400)->Arg(20000);
BENCHMARK(append<std::string>)->Name("append/std")->Arg(33)->Arg(400)->Arg(20000);
BENCHMARK(terminate<olk::string>)->Name("c_str/olk");
BENCHMARK(terminate<std::string>)->Name("c_str/std");

}  // namespace
