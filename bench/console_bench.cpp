//  One console record with standard output on /dev/null, beside one printf of the same line with the clock read, and
//  beside spdlog with the same pattern on a file sink that flushes as rarely.
#include "olk_prtlog.h"

#include <benchmark/benchmark.h>

#ifdef WITH_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

#include <cstdio>
#include <ctime>
#include <memory>

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

//  Standard output is /dev/null while it lives.
class muted_output {
public:
    muted_output() {
        std::fflush(stdout);
        before_ = dup(STDOUT_FILENO);
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, STDOUT_FILENO);
        close(null);
        std::setvbuf(stdout, nullptr, _IOFBF, 0);
    }
    ~muted_output() {
        std::fflush(stdout);
        dup2(before_, STDOUT_FILENO);
        close(before_);
    }
    muted_output(const muted_output&) = delete;
    muted_output& operator=(const muted_output&) = delete;

private:
    int before_;
};

void console_olk(benchmark::State& state) {
    const muted_output muted;
    olk::prtlog log;
    log.open("stdout");
    for (auto _ : state)
        benchmark::DoNotOptimize(log.add(30, "rdburl: %s", "sqlite:///var/lib/addrpubd/rdb.db"));
}

void console_filtered(benchmark::State& state) {
    const muted_output muted;
    olk::prtlog log(30);
    log.open("stdout");
    for (auto _ : state)
        benchmark::DoNotOptimize(log.add(40, "rdburl: %s", "sqlite:///var/lib/addrpubd/rdb.db"));
}

void console_printf(benchmark::State& state) {
    const muted_output muted;
    for (auto _ : state) {
        timeval now{};
        gettimeofday(&now, nullptr);
        tm local{};
        localtime_r(&now.tv_sec, &local);
        std::printf("[%d/%d/%d %02d:%02d:%02d.%06d] [inf] rdburl: %s\n", local.tm_year + 1900, local.tm_mon + 1,
                    local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(now.tv_usec),
                    "sqlite:///var/lib/addrpubd/rdb.db");
    }
}

BENCHMARK(console_olk)->Name("console/olk");
BENCHMARK(console_printf)->Name("console/printf");
BENCHMARK(console_filtered)->Name("console_filtered/olk");

#ifdef WITH_SPDLOG
void console_spdlog(benchmark::State& state) {
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_st>("/dev/null");
    spdlog::logger log("bench", sink);
    log.set_pattern("[%Y/%m/%d %H:%M:%S.%f] [%l] %v");
    for (auto _ : state)
        log.info("rdburl: {}", "sqlite:///var/lib/addrpubd/rdb.db");
}

BENCHMARK(console_spdlog)->Name("console/spdlog");
#endif

}  // namespace
