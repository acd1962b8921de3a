#include "engine/reason_log.h"

#include "open_support.h"
#include "open_syslog.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

namespace {

using rdbopen::ReasonLog;

std::vector<std::string> lines;
int loseLines = 0;  // number of the next lines that are lost

}  // namespace

extern "C" ssize_t __wrap_sendto(int, const void* bytes, size_t length, int, const sockaddr*, socklen_t) {
    if (loseLines > 0) {
        --loseLines;
        errno = EAGAIN;
        return -1;
    }
    lines.push_back(opentest::syslogLineOf(bytes, length).text);
    return static_cast<ssize_t>(length);
}

namespace {

class ReasonLogTest : public testing::Test {
protected:
    ReasonLogTest() { lines.clear(); }
    //  Reports this failure. Returns the number of lines sent.
    std::size_t fail(const std::string& reason) {
        const std::size_t before = lines.size();
        log.fail("server", reason);
        return lines.size() - before;
    }

    ReasonLog log;
};

TEST_F(ReasonLogTest, EachReasonIsReportedOnce) {
    for (const char* reason : {"a", "b", "c"})
        EXPECT_EQ(fail(reason), 1U);
    for (const char* reason : {"b", "a", "c"})
        EXPECT_EQ(fail(reason), 0U);
    EXPECT_EQ(lines.front(), "rdbapi: server: a");
}

TEST_F(ReasonLogTest, AllReasonsAreNewAfterClear) {
    fail("a");
    log.clear();
    EXPECT_EQ(fail("a"), 1U);
}

TEST_F(ReasonLogTest, RecoveryIsReportedOnceAndMakesAllReasonsNew) {
    fail("a");
    lines.clear();
    log.recover("server");
    log.recover("server");
    EXPECT_EQ(lines, std::vector<std::string>{"rdbapi: server: works again"});
    EXPECT_EQ(fail("a"), 1U);
}

TEST_F(ReasonLogTest, WithoutAFailureRecoveryIsNotReported) {
    log.recover("server");
    EXPECT_EQ(lines.size(), 0U);
}

TEST_F(ReasonLogTest, ALostLineIsSentAtTheNextFailure) {
    loseLines = 1;
    EXPECT_EQ(fail("a"), 0U);
    EXPECT_EQ(fail("a"), 1U);
}

TEST_F(ReasonLogTest, ADifferentNumberOfSecondsIsNotANewReason) {
    fail("the clocks differ by 3 s");
    EXPECT_EQ(fail("the clocks differ by 4 s"), 0U);
    EXPECT_EQ(fail("the clocks differ by 4 h"), 1U);
}

TEST_F(ReasonLogTest, TheOldestReasonIsForgottenBeyondTheCapacity) {
    for (std::size_t i = 0; i <= ReasonLog::capacity; ++i)
        EXPECT_EQ(fail(std::string(i + 1, 'x')), 1U);
    for (std::size_t i = 1; i <= ReasonLog::capacity; ++i)
        EXPECT_EQ(fail(std::string(i + 1, 'x')), 0U) << i;
    EXPECT_EQ(fail("x"), 1U);
}

}  // namespace
