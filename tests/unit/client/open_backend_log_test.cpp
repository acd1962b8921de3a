#include "dryrun/backend.h"

#include "open_support.h"
#include "open_syslog.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <syslog.h>

namespace {

std::vector<std::string> reports;
std::vector<int> priorities;

}  // namespace

extern "C" ssize_t __wrap_sendto(int, const void* bytes, size_t length, int, const sockaddr*, socklen_t) {
    const opentest::SyslogLine line = opentest::syslogLineOf(bytes, length);
    reports.push_back(line.text);
    priorities.push_back(line.priority);
    return static_cast<ssize_t>(length);
}

namespace {

using namespace opentest;
using namespace rdbopen;

TEST(LogBackend, LogsItsRequestsAndAnswersLikeAnEmptyServer) {
    reports.clear();
    const auto backend = backendFor("log:");
    ASSERT_NE(backend, nullptr);
    EXPECT_EQ(backend->open(plainWaiter).code, 0);
    RdbTag tag = tagNamed("host1");
    EXPECT_EQ(backend->tags()->get(tag).code, errorNoSuchTag);
    EXPECT_EQ(backend->tags()->import(usableTag("host1")).code, 0);
    EXPECT_EQ(backend->tags()->get(tag).code, 0);
    EXPECT_EQ(tag.tagclass, RDB_TAG_CLASS_USABLE);
    const RdbSnapshot record = recordOf("host1", "2001:db8::1,fd00::1");
    EXPECT_EQ(backend->tags()->put({&record, 1}).code, 0);
    std::string reply;
    EXPECT_EQ(backend->updates()->apply(R"({"request":"ws_dnsupdate"})", reply).code, 0);
    EXPECT_EQ(reply, R"({"code":0,"message":"dry run"})");
    EXPECT_EQ(reports, (std::vector<std::string>{"rdbapi: log:: would make the tag host1",
                                                 "rdbapi: log:: would write host1 = 2001:db8::1,fd00::1",
                                                 R"(rdbapi: log:: would send {"request":"ws_dnsupdate"})"}));
    EXPECT_EQ(priorities.back(), LOG_DAEMON | LOG_INFO);
}

TEST(LogBackend, ServesTagsAndUpdateRequests) {
    const auto backend = backendFor("log://");
    ASSERT_NE(backend, nullptr);
    EXPECT_TRUE(backend->tags() != nullptr);
    EXPECT_TRUE(backend->updates() != nullptr);
}

TEST(LogBackend, TextAfterTheSchemeIsRefused) {
    for (const char* url : {"log:///x", "log://host", "log://?a=b", "log:x"})
        EXPECT_EQ(backendFor(url), nullptr) << url;
}

}  // namespace
