#include "dns/layout.h"

#include "open_dns_support.h"

#include <gtest/gtest.h>

namespace {

using namespace opentest;
using namespace rdbopen;

constexpr const char* signature = "00 00fa 00ff 00000000 0002 abcd";

DnsLayout layout(const std::string& hex) {
    SignaturePlace place;
    return layoutOf(fromHex(hex), place);
}

std::string header(const char* counts) {
    return std::string("1234 8400 ") + counts + " ";
}

TEST(DnsLayout, AMessageWithoutASignatureIsBare) {
    EXPECT_EQ(layout(header("0000 0000 0000 0000")), DnsLayout::bare);
    EXPECT_EQ(layout(header("0001 0000 0000 0000") + "0161 00 0001 0001"), DnsLayout::bare);
    EXPECT_EQ(layout(header("0000 0001 0001 0001") + "c00c 0001 0001 00000000 0000" + "00 0001 0001 00000000 0001 ff" +
                     "0161 c00c 0001 0001 00000000 0000"),
              DnsLayout::bare);
}

TEST(DnsLayout, AMessageWithASignatureAtTheEndIsSigned) {
    SignaturePlace place;
    EXPECT_EQ(layoutOf(fromHex(header("0001 0000 0000 0001") + "0161 00 0001 0001" + signature), place),
              DnsLayout::hasSignature);
    EXPECT_EQ(place.owner, 19U);
    EXPECT_EQ(place.data, 30U);
}

TEST(DnsLayout, ASignatureThatIsNotTheLastRecordIsMalformed) {
    const std::string other = " 00 0001 0001 00000000 0000";
    EXPECT_EQ(layout(header("0000 0001 0000 0000") + signature), DnsLayout::malformed);
    EXPECT_EQ(layout(header("0000 0000 0001 0000") + signature), DnsLayout::malformed);
    EXPECT_EQ(layout(header("0000 0000 0000 0002") + signature + other), DnsLayout::malformed);
    EXPECT_EQ(layout(header("0000 0000 0000 0002") + signature + " " + signature), DnsLayout::malformed);
    EXPECT_EQ(layout(header("0000 0000 0000 0001") + signature + "00"), DnsLayout::malformed);
}

TEST(DnsLayout, ASignatureOfAnotherClassOrTtlIsMalformed) {
    EXPECT_EQ(layout(header("0000 0000 0000 0001") + "00 00fa 0001 00000000 0002 abcd"), DnsLayout::malformed);
    EXPECT_EQ(layout(header("0000 0000 0000 0001") + "00 00fa 00ff 00000001 0002 abcd"), DnsLayout::malformed);
}

TEST(DnsQuestion, IsThatOfTheRequestInLowerOrUpperCase) {
    const DnsBytes request = fromHex(header("0001 0000 0000 0000") + "0161 0162 00 0041 0001");
    const auto same = [&request](const std::string& counts, const std::string& question) {
        return hasQuestionOf(fromHex(header(counts.c_str()) + question), request);
    };
    EXPECT_TRUE(same("0001 0000 0000 0000", "0161 0162 00 0041 0001"));
    EXPECT_TRUE(same("0001 0000 0000 0000", "0141 0142 00 0041 0001 c00c"));
    EXPECT_FALSE(same("0000 0000 0000 0000", "0161 0162 00 0041 0001"));
    EXPECT_FALSE(same("0002 0000 0000 0000", "0161 0162 00 0041 0001"));
    EXPECT_FALSE(same("0101 0000 0000 0000", "0161 0162 00 0041 0001"));
    EXPECT_FALSE(same("0001 0000 0000 0000", "0161 0163 00 0041 0001"));
    EXPECT_FALSE(same("0001 0000 0000 0000", "0161 0162 00 0061 0001"));
    EXPECT_FALSE(same("0001 0000 0000 0000", "0161 0162 00 0041 00ff"));
    EXPECT_FALSE(same("0001 0000 0000 0000", "0161 0162 00 0041 00"));
    EXPECT_FALSE(same("0001 0000 0000 0000", ""));
}

TEST(DnsLayout, RecordsThatDoNotEndWithTheMessageAreMalformed) {
    for (const char* const message :
         {"", "1234 8400 0000 0000 0000 00", "1234 8400 0000 0000 0000 0000 00", "1234 8400 0001 0000 0000 0000",
          "1234 8400 0001 0000 0000 0000 01", "1234 8400 0001 0000 0000 0000 c0",
          "1234 8400 0001 0000 0000 0000 80 00000000", "1234 8400 0001 0000 0000 0000 40 00000000",
          "1234 8400 0001 0000 0000 0000 00 0001 00", "1234 8400 0000 0001 0000 0000 00 0001 0001 00000000 00",
          "1234 8400 0000 0001 0000 0000 00 0001 0001 00000000 0001", "1234 8400 ffff ffff ffff ffff 00 0001 0001"})
        EXPECT_EQ(layout(message), DnsLayout::malformed) << message;
}

}  // namespace
