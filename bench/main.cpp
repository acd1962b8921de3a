//  addrpubd_bench [options of Google Benchmark]   measures the time of each case
//  addrpubd_bench --once PREFIX                   runs one batch of each case whose name starts with PREFIX
//  addrpubd_bench --left SIZE                     prints the memory that remains after use (memory_left.h)
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

//  Runs one batch. measure.py passes this function's name to callgrind, which counts and reports each call of it.
__attribute__((noinline)) void counted(const measured_case& one) {
    one.run(one.batch);
    asm volatile("" : : : "memory");  // prevents a tail call: callgrind must see this function return
}

namespace {

//  Number of calls of write(2) that this process has made.
unsigned long long writes() {
    std::FILE* file = std::fopen("/proc/self/io", "re");
    unsigned long long found = 0;
    char line[64];
    while (file != nullptr && std::fgets(line, sizeof line, file) != nullptr)
        std::sscanf(line, "syscw: %llu", &found);
    if (file != nullptr)
        std::fclose(file);
    return found;
}

//  Number of runs before the counted run. The first runs also allocate memory that later runs use again, and they
//  change the free lists of an allocator.
constexpr int warm_runs = 3;

//  Prints a line for each case whose name starts with prefix: its name, the size of the batch, and the number of calls
//  of write(2) in the batch.
int once(const std::string& prefix) {
    for (const measured_case& one : cases()) {
        if (one.name.rfind(prefix, 0) != 0)
            continue;
        for (int i = 0; i < warm_runs; ++i)
            one.run(1);
        const unsigned long long before = writes();
        counted(one);
        dprintf(STDOUT_FILENO, "%s %zu %llu\n", one.name.c_str(), one.batch, writes() - before);
    }
    return 0;
}

void register_cases() {
    for (const measured_case& one : cases())
        benchmark::RegisterBenchmark(one.name.c_str(), [&one](benchmark::State& state) {
            while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(one.batch)))
                one.run(one.batch);
        });
}

//  A service with a server has other threads, which belong to the client library. In a process with a single thread the
//  C library skips its locks, so its functions would cost less here than in the service.
void start_idle_thread() {
    std::thread([] { pause(); }).detach();
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    bench::start_idle_thread();
    if (argc == 3 && std::strcmp(argv[1], "--once") == 0)
        return bench::once(argv[2]);
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
