#include "dnsupdate.h"

#include "service_platform.h"
#include "service_publish.h"

#include <cstdlib>
#include <ctime>
#include <utility>

namespace {

using recording_rdb::Function;

using UpdateDomain = PublishTest;

//  The time zone is UTC, unless a test sets another one.
class RequestText : public testing::Test {
protected:
    RequestText() { setZone("UTC0"); }
    ~RequestText() override {
        if (had_zone_)
            setenv("TZ", zone_.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }
    static void setZone(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }
    static std::string textOf(std::int32_t seqno, const DnsUpdateItem& item) {
        olk::string text;
        writeDnsUpdateRequest(seqno, item, text);
        return {text.data(), text.size()};
    }
    //  Returns the members of the item, as written in a request with number 1.
    std::string members() const {
        const std::string text = textOf(1, item);
        const std::string front = R"({"request":"ws_dnsupdate","seqno":1,"item":{)";
        EXPECT_TRUE(text.starts_with(front) && text.ends_with("}}")) << text;
        return text.substr(front.size(), text.size() - front.size() - 2);
    }

    DnsUpdateItem item;

private:
    const bool had_zone_ = std::getenv("TZ") != nullptr;
    const std::string zone_ = had_zone_ ? std::getenv("TZ") : "";
};

using SplitAddressList = testing::Test;

Lines split(const std::string& list) {
    olk::vector_<olk::string> pieces;
    splitAddressList(list, pieces);
    Lines texts;
    for (const olk::string& piece : pieces)
        texts.emplace_back(piece.data(), piece.size());
    return texts;
}

TEST_F(RequestText, IsIdenticalToTheProtocolsExample) {
    item.name = olk::string("host1");
    item.ipv6s.push_back(olk::string("2001:db8::1"));
    item.ipv6s.push_back(olk::string("2001:db8::2"));
    item.httpsports.push_back(443);
    item.httpsports.push_back(8443);
    EXPECT_EQ(textOf(5, item), R"({"request":"ws_dnsupdate","seqno":5,"item":{"name":"host1",)"
                               R"("ipv6s":["2001:db8::1","2001:db8::2"],"ipv6":"2001:db8::1",)"
                               R"("httpsports":[443,8443]}})");
}

TEST_F(RequestText, AnEmptyItemHasOnlyItsPorts) {
    EXPECT_EQ(textOf(1, item), R"({"request":"ws_dnsupdate","seqno":1,"item":{"httpsports":[]}})");
}

TEST_F(RequestText, AllMembersAreInTheirOrder) {
    item.timestamp = 1'744'362'303'042;
    item.name = olk::string("h");
    item.httpsports.push_back(1);
    item.ipv4s.push_back(olk::string("192.0.2.1"));
    item.ipv4s.push_back(olk::string("192.0.2.2"));
    item.ipv6s.push_back(olk::string("1::1"));
    EXPECT_EQ(members(), R"("name":"h","ipv4s":["192.0.2.1","192.0.2.2"],"ipv4":"192.0.2.1","ipv6s":["1::1"],)"
                         R"("ipv6":"1::1","timestamp":"2025-04-11T09:05:03.042Z","httpsports":[1])");
}

TEST_F(RequestText, WithoutANameTheItemBeginsWithTheNextMember) {
    item.ipv6s.push_back(olk::string("1::1"));
    EXPECT_EQ(members(), R"("ipv6s":["1::1"],"ipv6":"1::1","httpsports":[])");
}

TEST_F(RequestText, WithIpv4OnlyThereIsNoIpv6Member) {
    item.ipv4s.push_back(olk::string("192.0.2.1"));
    EXPECT_EQ(members(), R"("ipv4s":["192.0.2.1"],"ipv4":"192.0.2.1","httpsports":[])");
}

TEST_F(RequestText, OnlyAPositiveTimestampIsWritten) {
    for (const std::int64_t none : {std::int64_t{0}, std::int64_t{-1}, INT64_MIN}) {
        item.timestamp = none;
        EXPECT_EQ(members(), R"("httpsports":[])");
    }
    item.timestamp = 1;
    EXPECT_EQ(members(), R"("timestamp":"1970-01-01T00:00:00.001Z","httpsports":[])");
}

TEST_F(RequestText, ATimestampIsLocalTimeWithItsZone) {
    setZone("EST5");
    item.timestamp = 1'744'362'303'000;
    EXPECT_EQ(members(), R"("timestamp":"2025-04-11T04:05:03-05:00","httpsports":[])");
}

TEST_F(RequestText, ATimestampThatCannotBeConvertedLeavesTheQuotesEmpty) {
    platform::hooks().localtime_r = [](const time_t*, tm*) -> tm* { return nullptr; };
    item.timestamp = 1;
    EXPECT_EQ(members(), R"("timestamp":"","httpsports":[])");
    platform::reset();
}

TEST_F(RequestText, PortsAreUnsigned32BitNumbers) {
    item.httpsports.push_back(0);
    item.httpsports.push_back(65535);
    item.httpsports.push_back(4294967295U);
    EXPECT_EQ(members(), R"("httpsports":[0,65535,4294967295])");
}

TEST_F(RequestText, TheNumberIsDecimalAndHasASignIfNegative) {
    for (const auto& [seqno, digits] :
         {std::pair{0, "0"}, {10, "10"}, {INT32_MAX, "2147483647"}, {-1, "-1"}, {INT32_MIN, "-2147483648"}})
        EXPECT_EQ(textOf(seqno, item),
                  R"({"request":"ws_dnsupdate","seqno":)" + std::string(digits) + R"(,"item":{"httpsports":[]}})");
}

TEST_F(RequestText, IsAppendedToTheCallersText) {
    olk::string text("x");
    writeDnsUpdateRequest(1, item, text);
    EXPECT_EQ(text.data()[0], 'x');
    EXPECT_EQ(text.data()[1], '{');
}

TEST_F(RequestText, AddressesAreEscaped) {
    item.ipv4s.push_back(olk::string("a/\"b"));
    item.ipv6s.push_back(olk::string("c\\"));
    EXPECT_EQ(members(), R"("ipv4s":["a\/\"b"],"ipv4":"a\/\"b","ipv6s":["c\\"],"ipv6":"c\\","httpsports":[])");
}

TEST_F(SplitAddressList, ReturnsThePiecesInOrder) {
    EXPECT_EQ(split("a,b,c"), (Lines{"a", "b", "c"}));
    EXPECT_EQ(split("2001:db8::1"), Lines{"2001:db8::1"});
}

TEST_F(SplitAddressList, LeavesOutEmptyPieces) {
    EXPECT_EQ(split(""), Lines{});
    EXPECT_EQ(split(","), Lines{});
    EXPECT_EQ(split(",,,"), Lines{});
    EXPECT_EQ(split(",a"), Lines{"a"});
    EXPECT_EQ(split("a,"), Lines{"a"});
    EXPECT_EQ(split(",,a,,b,,"), (Lines{"a", "b"}));
}

TEST_F(UpdateDomain, FillsTheItemFromTheConfiguration) {
    parsePortList("443,8443", run.dnshttpsports);
    DnsUpdateItem item;
    item.name = olk::string("old name");
    item.httpsports.push_back(1);
    EXPECT_EQ(run.updateDomain(item), 0);
    EXPECT_EQ(std::string(item.name.c_str()), "host1");
    EXPECT_EQ(std::vector<std::uint32_t>(item.httpsports.begin(), item.httpsports.end()),
              (std::vector<std::uint32_t>{1, 443, 8443}));
}

TEST_F(UpdateDomain, AnEmptyHostNameEmptiesTheName) {
    run.hostname.clear();
    DnsUpdateItem item;
    item.name = olk::string("old name");
    item.ipv6s.push_back(olk::string("1::1"));
    run.updateDomain(item);
    EXPECT_TRUE(item.name.empty());
    EXPECT_EQ(callsOf(Function::callmsg).at(0).text,
              R"({"request":"ws_dnsupdate","seqno":1,"item":{"ipv6s":["1::1"],"ipv6":"1::1","httpsports":[]}})");
}

TEST_F(UpdateDomain, PassesHandleTextLengthCallbackAndObject) {
    run.dns_handle = 34;
    DnsUpdateItem item;
    run.updateDomain(item);
    const auto call = callsOf(Function::callmsg).at(0);
    const std::string text = R"({"request":"ws_dnsupdate","seqno":1,"item":{"name":"host1","httpsports":[]}})";
    EXPECT_EQ(call.handle, 34);
    EXPECT_EQ(call.text, text);
    EXPECT_EQ(call.length, static_cast<std::int32_t>(text.size()));
    EXPECT_TRUE(call.terminated);
    EXPECT_EQ(call.callback, reinterpret_cast<std::uintptr_t>(&onDnsReply));
    EXPECT_EQ(call.user, reinterpret_cast<std::uintptr_t>(&run));
}

TEST_F(UpdateDomain, LogsTheWholeTextAtLevel40BeforeTheCall) {
    DnsUpdateItem item;
    item.ipv6s.push_back(olk::string(std::string(5000, 'a').c_str()));
    run.updateDomain(item);
    const std::string text = callsOf(Function::callmsg).at(0).text;
    EXPECT_EQ(trace.take(), (Lines{"40 send: " + text, "rdb_callmsg 1 " + text}));
}

TEST_F(UpdateDomain, ARefusalIsLoggedAtLevel10AndReturnsMinusOne) {
    for (const int code : {1, -1, 7, INT32_MIN}) {
        recording_rdb::script_result(Function::callmsg, recording_rdb::every_call, code);
        DnsUpdateItem item;
        EXPECT_EQ(run.updateDomain(item), -1);
        EXPECT_EQ(trace.take().back(), "10 updateDomain errorcode " + std::to_string(code));
    }
}

TEST_F(UpdateDomain, WorksWithoutALog) {
    run.log = nullptr;
    DnsUpdateItem item;
    EXPECT_EQ(run.updateDomain(item), 0);
    recording_rdb::script_result(Function::callmsg, recording_rdb::every_call, 1);
    EXPECT_EQ(run.updateDomain(item), -1);
}

}  // namespace
