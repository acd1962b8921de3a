#include "engine/report.h"

#include "open_syslog.h"

#include <cstring>
#include <gtest/gtest.h>
#include <optional>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

namespace {

std::optional<opentest::SyslogLine> reported;
std::string reportedTo;
int reportedFlags = 0;

}  // namespace

extern "C" {
ssize_t __real_sendto(int, const void*, size_t, int, const sockaddr*, socklen_t);
ssize_t __wrap_sendto(int descriptor, const void* bytes, size_t length, int flags, const sockaddr* to, socklen_t size) {
    reportedTo = reinterpret_cast<const sockaddr_un*>(to)->sun_path;
    reportedFlags = flags;
    if (reportedTo != _PATH_LOG)  // open_syslog_line_test.cpp sends to a socket of its own
        return __real_sendto(descriptor, bytes, length, flags, to, size);
    reported = opentest::syslogLineOf(bytes, length);
    return static_cast<ssize_t>(length);
}
}

namespace {

using namespace rdbopen;

std::string textOf(std::string_view subject, std::string_view reason) {
    reported.reset();
    reportFailure(subject, reason);
    return reported ? reported->text : "nothing";
}

TEST(Report, EachKindHasItsSyslogLevel) {
    const struct {
        bool (*report)(std::string_view, std::string_view) noexcept;
        int level;
    } kinds[] = {{reportFailure, LOG_ERR}, {reportInfo, LOG_INFO}, {reportRecovery, LOG_NOTICE}};
    for (const auto& [report, level] : kinds) {
        reported.reset();
        EXPECT_TRUE(report("subject", "text"));
        ASSERT_TRUE(reported);
        EXPECT_EQ(reported->priority, LOG_DAEMON | level);
        EXPECT_EQ(reported->text, "rdbapi: subject: text");
        EXPECT_EQ(reportedTo, "/dev/log");
    }
}

TEST(Report, SendingNeitherWaitsNorRaisesASignal) {
    reportFailure("subject", "text");
    EXPECT_EQ(reportedFlags & (MSG_DONTWAIT | MSG_NOSIGNAL), MSG_DONTWAIT | MSG_NOSIGNAL);
}

TEST(Report, EveryControlByteIsWrittenAsItsNumber) {
    for (int byte = 0; byte < 0x80; ++byte) {
        const bool control = byte < 0x20 || byte == 0x7f;
        char number[8];
        snprintf(number, sizeof number, "\\x%02x", static_cast<unsigned>(byte));
        const std::string one(1, static_cast<char>(byte));
        EXPECT_EQ(textOf("a" + one, one + "b"),
                  "rdbapi: a" + (control ? number : one) + ": " + (control ? number : one) + "b");
    }
}

TEST(Report, Utf8CharactersAreKeptAndOtherBytesAreWrittenAsNumbers) {
    const struct {
        const char* text;
        const char* written;
    } rows[] = {
        {"\xc3\xa4/\xe2\x82\xac/\xf0\x9f\x98\x80", "\xc3\xa4/\xe2\x82\xac/\xf0\x9f\x98\x80"},
        {"\xc2\xa0", "\xc2\xa0"},
        {"\xc2\x9b"
         "31m",
         "\\xc2\\x9b"
         "31m"},  // U+009B starts a terminal control sequence, like ESC [
        {"\x9b"
         "31m",
         "\\x9b"
         "31m"},
        {"\xe2\x82", "\\xe2\\x82"},
        {"\xe2\x82z", "\\xe2\\x82z"},
        {"\xc0\x8a", "\\xc0\\x8a"},
        {"\xe0\x80\x8a", "\\xe0\\x80\\x8a"},
        {"\xf0\x80\x80\x8a", "\\xf0\\x80\\x80\\x8a"},
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
        {"\xff\xf5", "\\xff\\xf5"},
    };
    for (const auto& [text, written] : rows)
        EXPECT_EQ(textOf("s", text), std::string("rdbapi: s: ") + written);
}

}  // namespace
