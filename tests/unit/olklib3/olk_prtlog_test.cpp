#include "olk_prtlog.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <limits>
#include <string>

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

//  The simulated clock. If clock_set is true, localtime_r returns the fields in `local`, or fails if conversion_fails.
bool clock_set;
bool conversion_fails;
int clock_reads;
suseconds_t microseconds;
tm local;

//  Redirects standard output to a pipe; the C library buffers the output. arrived() returns the text that has reached
//  the pipe. flushed() does the same after a flush.
class piped_output {
public:
    piped_output() {
        std::fflush(stdout);
        before_ = dup(STDOUT_FILENO);
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
        dup2(ends[1], STDOUT_FILENO);
        close(ends[1]);
        reading_ = ends[0];
        std::setvbuf(stdout, nullptr, _IOFBF, 0);
    }
    ~piped_output() {
        flushed();
        dup2(before_, STDOUT_FILENO);
        close(before_);
        close(reading_);
        if (isatty(STDOUT_FILENO) != 0)
            std::setvbuf(stdout, nullptr, _IOLBF, 0);
    }
    piped_output(const piped_output&) = delete;
    piped_output& operator=(const piped_output&) = delete;

    std::string arrived() const {
        char text[4096];
        const ssize_t length = read(reading_, text, sizeof text);
        return length > 0 ? std::string(text, static_cast<size_t>(length)) : std::string();
    }
    std::string flushed() const {
        std::fflush(stdout);
        return arrived();
    }

private:
    int before_;
    int reading_;
};

class ConsoleLog : public testing::Test {
protected:
    ConsoleLog() {
        clock_set = true;
        conversion_fails = false;
        clock_reads = 0;
        microseconds = 42117;
        local = tm{};
        local.tm_year = 125;
        local.tm_mon = 3;
        local.tm_mday = 11;
        local.tm_hour = 9;
        local.tm_min = 5;
        local.tm_sec = 3;
        log.open("stdout");
    }
    ~ConsoleLog() override { clock_set = false; }

    __attribute__((format(printf, 4, 5))) int push(int level, const char* tag, const char* format, ...) {
        va_list args;
        va_start(args, format);
        const int result = log.push(level, tag, format, args);
        va_end(args);
        return result;
    }

    olk::prtlog log;
};

constexpr char stamp[] = "[2025/4/11 09:05:03.042117] ";

std::string line(const std::string& rest) {
    return stamp + rest + "\n";
}

TEST_F(ConsoleLog, StartsWithLevel40AndSilent) {
    const olk::prtlog fresh;
    EXPECT_EQ(fresh.level, 40);
    EXPECT_EQ(fresh.tostdout, 0);
}

TEST_F(ConsoleLog, TheTwoFieldsFollowTheBase) {
    EXPECT_EQ(reinterpret_cast<char*>(&log.level) - reinterpret_cast<char*>(&log), 8);
    EXPECT_EQ(reinterpret_cast<char*>(&log.tostdout) - reinterpret_cast<char*>(&log), 12);
    EXPECT_EQ(sizeof log, 16u);
}

TEST_F(ConsoleLog, AddPrintsOneLine) {
    const piped_output out;
    log.add(30, "rdburl: %s", "sqlite:///x");
    EXPECT_EQ(out.flushed(), line("[inf] rdburl: sqlite:///x"));
}

TEST_F(ConsoleLog, YearMonthAndDayAreNotPadded) {
    local.tm_year = -1895;
    local.tm_mon = 0;
    local.tm_mday = 1;
    const piped_output out;
    log.add(30, "x");
    EXPECT_EQ(out.flushed(), "[5/1/1 09:05:03.042117] [inf] x\n");
}

TEST_F(ConsoleLog, MonthsCountFrom1) {
    local.tm_mon = 11;
    local.tm_mday = 31;
    const piped_output out;
    log.add(30, "x");
    EXPECT_EQ(out.flushed(), "[2025/12/31 09:05:03.042117] [inf] x\n");
}

TEST_F(ConsoleLog, MicrosecondsHaveSixDigits) {
    microseconds = 17;
    const piped_output out;
    EXPECT_EQ(log.add(30, "%s", "x"), 1);
    microseconds = 999999;
    log.add(30, "x");
    EXPECT_EQ(out.flushed(), "[2025/4/11 09:05:03.000017] [inf] x\n[2025/4/11 09:05:03.999999] [inf] x\n");
}

TEST_F(ConsoleLog, LabelsEveryLevelByItsName) {
    log.setlevel(999);
    const piped_output out;
    for (int level : {10, 20, 30, 31, 40, 999})
        log.add(level, "x");
    EXPECT_EQ(out.flushed(), line("[err] x") + line("[wrn] x") + line("[inf] x") + line("[mor] x") + line("[dbg] x") +
                                 line("[all] x"));
}

TEST_F(ConsoleLog, LabelsALevelWithoutANameByItsNumber) {
    log.setlevel(std::numeric_limits<int>::max());
    const piped_output out;
    log.add(35, "x");
    log.add(std::numeric_limits<int>::max(), "x");
    log.add(-5, "x");
    EXPECT_EQ(out.flushed(), line("[35] x") + line("[2147483647] x") + line("[-5] x"));
}

TEST_F(ConsoleLog, PrintsTheTextUnchanged) {
    const piped_output out;
    log.add(30, "\n\tstart addrpubd...");
    EXPECT_EQ(out.flushed(), line("[inf] \n\tstart addrpubd..."));
}

TEST_F(ConsoleLog, AddReturnsTheLengthOfTheText) {
    const piped_output out;
    EXPECT_EQ(log.add(30, "%s", "four"), 4);
    EXPECT_EQ(log.add(30, "%s", ""), 0);
    EXPECT_EQ(out.flushed(), line("[inf] four") + line("[inf] "));
}

TEST_F(ConsoleLog, AddDoesNotFlush) {
    const piped_output out;
    log.add(30, "x");
    EXPECT_EQ(out.arrived(), "");
    EXPECT_EQ(out.flushed(), line("[inf] x"));
}

TEST_F(ConsoleLog, PushFlushes) {
    const piped_output out;
    push(30, nullptr, "x");
    EXPECT_EQ(out.arrived(), line("[inf] x"));
}

TEST_F(ConsoleLog, PushAlsoFlushesTheOutputOfAdd) {
    const piped_output out;
    log.add(30, "first");
    push(40, "rdb", "up");
    EXPECT_EQ(out.arrived(), line("[inf] first") + line("[dbg][rdb] up"));
}

TEST_F(ConsoleLog, PushPrintsTheTagAfterTheLevel) {
    const piped_output out;
    push(40, "rdb", "up");
    EXPECT_EQ(out.arrived(), line("[dbg][rdb] up"));
}

TEST_F(ConsoleLog, PushWithoutATagIsLikeAdd) {
    const piped_output out;
    push(30, nullptr, "%d", 1);
    push(30, "", "%d", 2);
    EXPECT_EQ(out.arrived(), line("[inf] 1") + line("[inf] 2"));
}

TEST_F(ConsoleLog, PushReturnsTheLengthOfTheText) {
    const piped_output out;
    EXPECT_EQ(push(30, "tag", "%s", "four"), 4);
}

TEST_F(ConsoleLog, AppendPrintsOnlyTheTextAndDoesNotFlush) {
    const piped_output out;
    EXPECT_EQ(log.append(30, "%s", "more"), 4);
    EXPECT_EQ(out.arrived(), "");
    EXPECT_EQ(out.flushed(), "more");
}

TEST_F(ConsoleLog, AppendDoesNotReadTheClock) {
    const piped_output out;
    log.append(30, "more");
    EXPECT_EQ(clock_reads, 0);
}

TEST_F(ConsoleLog, IsSilentUntilItIsOpened) {
    olk::prtlog fresh;
    const piped_output out;
    EXPECT_EQ(fresh.add(10, "x"), 0);
    EXPECT_EQ(fresh.append(10, "x"), 0);
    EXPECT_EQ(out.flushed(), "");
}

TEST_F(ConsoleLog, ASilentLogsPushPrintsAndReturnsNothing) {
    log.open("");
    const piped_output out;
    EXPECT_EQ(push(10, "tag", "x"), 0);
    EXPECT_EQ(out.flushed(), "");
}

TEST_F(ConsoleLog, OpenAcceptsStdoutInAnyCase) {
    for (const char* target : {"stdout", "STDOUT", "StdOut"}) {
        olk::prtlog fresh;
        EXPECT_EQ(fresh.open(target), 0);
        EXPECT_EQ(fresh.tostdout, 1) << target;
    }
}

TEST_F(ConsoleLog, OpenWithAnotherTargetIsSilentAndReturns0) {
    for (const char* target : {"/tmp/x.log", "", "stdout ", " stdout", "stdou", "stderr", "udp://h/c"}) {
        log.tostdout = 1;
        EXPECT_EQ(log.open(target), 0);
        EXPECT_EQ(log.tostdout, 0) << target;
    }
    log.tostdout = 1;
    EXPECT_EQ(log.open(nullptr), 0);
    EXPECT_EQ(log.tostdout, 0);
}

TEST_F(ConsoleLog, OpenKeepsTheLevel) {
    log.setlevel(20);
    log.open("stdout");
    EXPECT_EQ(log.getlevel(), 20);
}

TEST_F(ConsoleLog, DropsARecordAboveItsLevel) {
    log.setlevel(30);
    const piped_output out;
    EXPECT_EQ(log.add(31, "x"), 0);
    EXPECT_EQ(log.append(31, "x"), 0);
    EXPECT_EQ(push(31, "tag", "x"), 0);
    EXPECT_EQ(out.flushed(), "");
}

TEST_F(ConsoleLog, PrintsARecordAtItsLevel) {
    log.setlevel(30);
    const piped_output out;
    EXPECT_EQ(log.add(30, "x"), 1);
    EXPECT_EQ(log.append(30, "x"), 1);
    EXPECT_EQ(push(30, nullptr, "x"), 1);
    EXPECT_EQ(log.add(10, "x"), 1);
}

TEST_F(ConsoleLog, ARecordOf999NeedsLevel999) {
    const piped_output out;
    EXPECT_EQ(log.add(999, "x"), 0);
    log.setlevel(999);
    EXPECT_EQ(log.add(999, "x"), 1);
    EXPECT_EQ(out.flushed(), line("[all] x"));
}

TEST_F(ConsoleLog, ANegativeLevelDropsARecordOfAPositiveLevel) {
    log.setlevel(-1);
    const piped_output out;
    EXPECT_EQ(log.add(10, "x"), 0);
    EXPECT_EQ(log.add(-1, "x"), 1);
}

TEST_F(ConsoleLog, ADroppedRecordDoesNotReadTheClock) {
    const piped_output out;
    log.add(41, "x");
    EXPECT_EQ(clock_reads, 0);
    log.add(40, "x");
    EXPECT_EQ(clock_reads, 1);
}

TEST_F(ConsoleLog, SetLevelTakesAnyValue) {
    for (int level : {0, -1, 35, 999, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        log.setlevel(level);
        EXPECT_EQ(log.getlevel(), level);
        EXPECT_EQ(log.level, level);
    }
}

TEST_F(ConsoleLog, WithoutALocalTimeTheDateIs1970AndTheMicrosecondsAreCorrect) {
    conversion_fails = true;
    microseconds = 123456;
    const piped_output out;
    log.add(30, "x");
    EXPECT_EQ(out.flushed(), "[1970/1/1 00:00:00.123456] [inf] x\n");
}

TEST_F(ConsoleLog, RuntimeDoesNothing) {
    const piped_output out;
    log.runtime();
    EXPECT_EQ(out.flushed(), "");
    EXPECT_EQ(clock_reads, 0);
}

TEST_F(ConsoleLog, WorksThroughTheInterface) {
    olk::ilog* made = new olk::prtlog(20);
    EXPECT_EQ(made->getlevel(), 20);
    EXPECT_EQ(made->open("stdout"), 0);
    {
        const piped_output out;
        EXPECT_EQ(made->add(20, "x"), 1);
        EXPECT_EQ(out.flushed(), line("[wrn] x"));
    }
    made->release();
}

}  // namespace

extern "C" int __real_gettimeofday(timeval* now, void* zone);
extern "C" int __wrap_gettimeofday(timeval* now, void* zone) {
    if (!clock_set)
        return __real_gettimeofday(now, zone);
    ++clock_reads;
    now->tv_sec = 1744362303;
    now->tv_usec = microseconds;
    return 0;
}

extern "C" tm* __real_localtime_r(const time_t* seconds, tm* out);
extern "C" tm* __wrap_localtime_r(const time_t* seconds, tm* out) {
    if (!clock_set)
        return __real_localtime_r(seconds, out);
    EXPECT_EQ(*seconds, 1744362303);
    if (conversion_fails)
        return nullptr;
    *out = local;
    return out;
}
