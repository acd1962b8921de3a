#include "request/dns_request.h"

#include <gtest/gtest.h>

namespace {

using namespace rdbopen;

std::string refusalOf(std::string_view text) {
    DnsRequest request;
    return parseDnsRequest(text, request).reason;
}

std::string requestWith(const std::string& item) {
    return "{\"request\":\"ws_dnsupdate\",\"seqno\":5,\"item\":" + item + "}";
}

std::string requestNamed(const std::string& name) {
    return requestWith("{\"name\":\"" + name + "\"}");
}

TEST(DnsRequest, ARequestOfTheServiceIsParsed) {
    DnsRequest request;
    ASSERT_EQ(parseDnsRequest("{\"request\":\"ws_dnsupdate\",\"seqno\":5,\"item\":{\"name\":\"host1\",\"ipv6s\":"
                              "[\"2001:db8::1\",\"2001:db8::2\"],\"ipv6\":\"2001:db8::1\",\"httpsports\":[443,8443]}}",
                              request)
                  .reason,
              "");
    EXPECT_EQ(request.seqno, 5);
    EXPECT_EQ(request.name, "host1");
    EXPECT_EQ(request.addresses, (std::vector<std::string>{"2001:db8::1", "2001:db8::2"}));
    EXPECT_EQ(request.httpsPorts, (std::vector<std::uint16_t>{443, 8443}));
}

TEST(DnsRequest, Ipv4ComesBeforeIpv6) {
    DnsRequest request;
    ASSERT_EQ(
        parseDnsRequest(requestWith("{\"name\":\"h\",\"ipv6s\":[\"::1\"],\"ipv4s\":[\"192.0.2.1\"]}"), request).reason,
        "");
    EXPECT_EQ(request.addresses, (std::vector<std::string>{"192.0.2.1", "::1"}));
}

TEST(DnsRequest, ARepeatedAddressIsUsedOnce) {
    DnsRequest request;
    ASSERT_EQ(parseDnsRequest(requestWith("{\"name\":\"h\",\"ipv6s\":[\"::1\",\"::2\",\"::1\"]}"), request).reason, "");
    EXPECT_EQ(request.addresses, (std::vector<std::string>{"::1", "::2"}));
}

TEST(DnsRequest, RepeatedPortsAreUsedOnceInTheirOrder) {
    DnsRequest request;
    ASSERT_EQ(parseDnsRequest(requestWith("{\"name\":\"h\",\"httpsports\":[8443,443,8443,1,65535]}"), request).reason,
              "");
    EXPECT_EQ(request.httpsPorts, (std::vector<std::uint16_t>{8443, 443, 1, 65535}));
}

TEST(DnsRequest, AnInvalidPortListIsRefused) {
    for (const char* list :
         {"443", "{}", "[0]", "[65536]", "[-1]", "[1.5]", "[\"443\"]", "[null]", "[18446744073709551616]"})
        EXPECT_EQ(refusalOf(requestWith("{\"name\":\"h\",\"httpsports\":" + std::string(list) + "}")),
                  "httpsports is not a list of port numbers")
            << list;
}

TEST(DnsRequest, TheListsMayBeMissing) {
    EXPECT_EQ(refusalOf(requestWith("{\"name\":\"h\"}")), "");
}

TEST(DnsRequest, InvalidRequestsAreRefused) {
    for (const std::string text : {"", "x", "{", "[]", "1", "null", "{}", "{\"seqno\":1}", "{\"seqno\":\"1\"}",
                                   "{\"seqno\":1.5}", "{\"seqno\":1,\"request\":5}", "{\"seqno\":1,\"request\":\"x\"}",
                                   "{\"request\":\"ws_dnsupdate\",\"item\":{\"name\":\"h\"}}",
                                   "{\"seqno\":1,\"request\":\"ws_dnsupdate\"}", "\xff\xfe"})
        EXPECT_NE(refusalOf(text), "") << text;
    EXPECT_NE(refusalOf(requestWith("[]")), "");
    EXPECT_NE(refusalOf(requestWith("{}")), "");
    EXPECT_NE(refusalOf(requestWith("{\"name\":5}")), "");
    EXPECT_NE(refusalOf(requestNamed("h") + "x"), "");
}

//  Counts the updates that it carries out.
class CountingBackend : public DnsUpdateBackend {
public:
    int updates = 0;

private:
    Status update(const DnsRequest&) override {
        ++updates;
        return {};
    }
};

TEST(DnsRequest, ARepetitionGetsTheReplyOfASuccessWithItsOwnNumber) {
    CountingBackend backend;
    const std::string item = "{\"name\":\"h\",\"ipv6s\":[\"::1\",\"::2\"],\"httpsports\":[443]}}";
    const std::string done = "{\"request\":\"ws_dnsupdate\",\"seqno\":1,\"item\":" + item;
    const std::string text = "{\"request\":\"ws_dnsupdate\",\"seqno\":2,\"item\":" + item;
    std::string reply;
    EXPECT_EQ(backend.apply(text, reply).code, errorNone);
    EXPECT_EQ(backend.repetition(text, done), reply);
    EXPECT_EQ(backend.updates, 1);
}

TEST(DnsRequest, ADifferentOrInvalidRequestIsNotARepetition) {
    CountingBackend backend;
    const std::string done = requestWith("{\"name\":\"h\",\"ipv6s\":[\"::1\",\"::2\"],\"httpsports\":[443]}");
    ASSERT_NE(backend.repetition(done, done), std::nullopt);
    for (const char* item : {"{\"name\":\"i\",\"ipv6s\":[\"::1\",\"::2\"],\"httpsports\":[443]}",
                             "{\"name\":\"h\",\"ipv6s\":[\"::1\"],\"httpsports\":[443]}",
                             "{\"name\":\"h\",\"ipv6s\":[\"::1\",\"::2\"],\"httpsports\":[444]}", "5"})
        EXPECT_EQ(backend.repetition(requestWith(item), done), std::nullopt) << item;
    EXPECT_EQ(backend.repetition(done, "{"), std::nullopt);
    EXPECT_EQ(backend.repetition("{", "{"), std::nullopt);
}

TEST(DnsRequest, DeepNestingIsRefusedWithoutACrash) {
    EXPECT_NE(refusalOf(std::string(1 << 20, '[')), "");
    EXPECT_NE(refusalOf(std::string(1 << 19, '[') + std::string(1 << 19, ']')), "");
}

TEST(DnsRequest, TheSequenceNumberIsKeptWhenTheRestIsRefused) {
    DnsRequest request;
    EXPECT_NE(parseDnsRequest("{\"seqno\":2147483647,\"request\":\"x\"}", request).reason, "");
    EXPECT_EQ(request.seqno, 2147483647);
}

TEST(DnsRequest, HostNamesAreLettersDigitsHyphensUnderscoresAndDots) {
    for (const std::string name : {"h", "H-1_x", "a.b.c", "1"})
        EXPECT_EQ(refusalOf(requestNamed(name)), "") << name;
    for (const std::string name : {"", " ", "a b", "a#b", "#", "a\\tb", "a\\nb", "a\\u0000b", ".", "a.", ".a", "a..b",
                                   "a/b", "\xc3\xa4", "*", "a:b"})
        EXPECT_NE(refusalOf(requestNamed(name)), "") << name;
}

TEST(DnsRequest, ALabelOf63CharactersIsAcceptedAnd64IsRefused) {
    EXPECT_EQ(refusalOf(requestNamed(std::string("b.").append(63, 'a'))), "");
    EXPECT_NE(refusalOf(requestNamed(std::string("b.").append(64, 'a'))), "");
}

TEST(DnsRequest, ANameOf253CharactersIsAcceptedAnd254IsRefused) {
    std::string label(63, 'a');
    label.back() = '.';
    const std::string name = label + label + label + label;  // 252
    EXPECT_EQ(refusalOf(requestNamed(name + "b")), "");
    EXPECT_NE(refusalOf(requestNamed(name + "bc")), "");
}

TEST(DnsRequest, AddressesAreCheckedByTheirFamily) {
    for (const std::string list :
         {"\"ipv6s\":[\"192.0.2.1\"]", "\"ipv4s\":[\"::1\"]", "\"ipv6s\":[\"fe80::1%eth0\"]", "\"ipv6s\":[\"\"]",
          "\"ipv6s\":[\"::1 \"]", "\"ipv6s\":[\"::1\\n\"]", "\"ipv6s\":[\"::1\\u0000\"]", "\"ipv6s\":[1]",
          "\"ipv6s\":\"::1\"", "\"ipv6s\":null", "\"ipv4s\":[\"1.2.3\"]", "\"ipv4s\":[[]]"})
        EXPECT_NE(refusalOf(requestWith("{\"name\":\"h\"," + list + "}")), "") << list;
}

TEST(DnsReply, HasSequenceNumberCodeAndMessage) {
    EXPECT_EQ(dnsReply(5, 0, "ok"), "{\"seqno\":5,\"code\":0,\"message\":\"ok\"}");
}

TEST(DnsReply, AnUnknownSequenceNumberIsNull) {
    EXPECT_EQ(dnsReply(std::nullopt, 1013, "x"), "{\"seqno\":null,\"code\":1013,\"message\":\"x\"}");
}

TEST(DnsReply, AReplyWhoseMessageIsNotPrintableIsStillValidJson) {
    EXPECT_EQ(dnsReply(1, 2, "a\"\\\n\xff\xc3\xa4"),
              "{\"seqno\":1,\"code\":2,\"message\":\"a\\\"\\\\\\\\x0a\\\\xff\xc3\xa4\"}");
}

}  // namespace
