//  The comparison of addrpubd-check --connect, and the deletion of --remove, with hosts files.
#include "connect.h"
#include "remove.h"
#include "report.h"
#include "runcls.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

#include <stdlib.h>

namespace {

using namespace check;

class Connect : public testing::Test {
protected:
    Connect() {
        char name[] = "/tmp/addrpubd-connect-XXXXXX";
        folder_ = mkdtemp(name);
        run_.hostname = "host1";
        run_.dnsuser = run_.dnspswd = "x";
        use("");
        console_.print = [this](const std::string& line) { output_ += line + "\n"; };
        console_.resolve = [this](const std::string& name_asked) {
            asked_ = name_asked;
            return resolved_;
        };
        console_.service_runs = true;
    }
    ~Connect() override { std::filesystem::remove_all(folder_); }

    void use(const std::string& options) { run_.dnsurl = "hosts://" + folder_ + "/hosts" + options; }
    void has(const std::string& address) {
        std::ofstream(folder_ + "/hosts") << address << " host1 # addrpubd host1\n";
        resolved_.addresses = {address};
    }
    int compare() {
        output_.clear();
        return compareServers(run_, console_);
    }
    bool said(const std::string& text) const { return output_.find(text) != std::string::npos; }

    std::string folder_;
    CRunCls run_;
    ConnectConsole console_;
    ResolverAnswer resolved_;
    std::string asked_;
    std::string output_;
};

TEST_F(Connect, EqualAddressesInAnotherOrderAreClean) {
    std::ofstream(folder_ + "/hosts") << "2001:db8::2 host1 # addrpubd host1\n2001:db8::1 host1 # addrpubd host1\n";
    console_.addresses = {"2001:db8::1", "2001:db8::2", "2001:db8::1"};
    resolved_.addresses = {"2001:db8::2", "2001:db8::1"};
    EXPECT_EQ(compare(), status_clean) << output_;
    EXPECT_EQ(asked_, "host1");
}

TEST_F(Connect, TheReasonOfADifferenceFitsTheSituation) {
    has("2001:db8::9");
    console_.addresses = {"2001:db8::1"};
    EXPECT_EQ(compare(), status_warnings);
    EXPECT_TRUE(said("the service writes a change within ten seconds")) << output_;
    console_.service_runs = false;
    EXPECT_EQ(compare(), status_warnings);
    EXPECT_TRUE(said("the service does not run on this machine")) << output_;
    console_.service_runs = true;
    use("?only=2001:db9::/32");
    EXPECT_EQ(compare(), status_warnings);
    EXPECT_TRUE(said("only and skip leave no address")) << output_;
    console_.addresses.clear();
    EXPECT_EQ(compare(), status_warnings);
    EXPECT_TRUE(said("a host without an address sends no update")) << output_;
}

TEST_F(Connect, AnOldAnswerOfTheResolverIsExplainedByItsTimeToLive) {
    has("2001:db8::1");
    console_.addresses = {"2001:db8::1"};
    resolved_ = {"", {"2001:db8::8"}, 42};
    EXPECT_EQ(compare(), status_warnings);
    EXPECT_TRUE(said("valid for 42 s more")) << output_;
    resolved_ = {"", {}, 0};
    EXPECT_EQ(compare(), status_warnings);
    EXPECT_TRUE(said("it has no address")) << output_;
    resolved_ = {"it is ill", {}, 0};
    EXPECT_EQ(compare(), status_warnings);
    EXPECT_TRUE(said("failed  it is ill")) << output_;
}

TEST_F(Connect, AUrlOfTheOtherServerIsAFailure) {
    run_.rdburl = run_.dnsurl;
    run_.rdbuser = run_.rdbpswd = "x";
    EXPECT_EQ(compare(), status_warnings);
    EXPECT_TRUE(said("does not serve the rdb server")) << output_;
}

TEST_F(Connect, BytesOfAServerAreShownAsPrintableText) {
    std::ofstream(folder_ + "/hosts") << "::1 host1 \x1b[31m\n";
    const RemoveOptions options;
    RemoveConsole console{console_.print, {}, false};
    EXPECT_EQ(removeName(run_, options, console), status_clean);
    EXPECT_TRUE(said("\\x1b[31m")) << output_;
}

TEST_F(Connect, ARemovalIsConfirmedOnce) {
    has("2001:db8::1");
    int questions = 0;
    bool answer = false;
    const RemoveConsole console{console_.print,
                                [&] {
                                    ++questions;
                                    return answer;
                                },
                                false};
    EXPECT_EQ(removeName(run_, {}, console), status_warnings);
    EXPECT_TRUE(std::filesystem::file_size(folder_ + "/hosts") != 0);
    answer = true;
    EXPECT_EQ(removeName(run_, {}, console), status_clean);
    EXPECT_EQ(std::filesystem::file_size(folder_ + "/hosts"), 0U);
    EXPECT_EQ(questions, 2);
    EXPECT_EQ(removeName(run_, {}, console), status_clean);
    EXPECT_EQ(questions, 2);  // nothing is left to confirm
}

}  // namespace
