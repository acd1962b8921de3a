//  addrpubd_bench [options of Google Benchmark]   measures the cases
//  addrpubd_bench --count CASE TIMES              runs one case so many times, for a tool that counts instructions
//  addrpubd_bench --left SIZE                     prints what stays resident after a million blocks (memory_left.h)
#include "cases.h"
#include "memory_left.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <unistd.h>

namespace bench {

std::vector<measured_case>& cases() {
    static std::vector<measured_case> all;
    return all;
}

bool add(std::string name, std::size_t batch, work run) {
    cases().push_back({std::move(name), batch, std::move(run)});
    return true;
}

namespace {

int count(const char* name, std::size_t times) {
    for (const measured_case& one : cases()) {
        if (one.name != name)
            continue;
        one.run(times);
        return 0;
    }
    std::fprintf(stderr, "no case %s\n", name);
    return 1;
}

void register_cases() {
    for (const measured_case& one : cases())
        benchmark::RegisterBenchmark(one.name.c_str(), [&one](benchmark::State& state) {
            while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(one.batch)))
                one.run(one.batch);
        });
}

//  The service is never alone in its process: its client library has threads. A C library that knows of one thread only
//  leaves its locks out.
void have_another_thread() {
    std::thread([] { pause(); }).detach();
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    bench::have_another_thread();
    if (argc == 4 && std::strcmp(argv[1], "--count") == 0)
        return bench::count(argv[2], std::strtoull(argv[3], nullptr, 10));
    if (argc == 3 && std::strcmp(argv[1], "--left") == 0) {
        bench::print_memory_left(std::strtoull(argv[2], nullptr, 10));
        return 0;
    }
    bench::register_cases();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
