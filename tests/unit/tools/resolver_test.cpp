#include "resolver.h"

#include <gtest/gtest.h>
#include <random>

namespace {

using namespace check;

std::vector<std::uint8_t> bytesOf(const std::string& hex) {
    std::vector<std::uint8_t> bytes;
    std::string digits;
    for (const char c : hex)
        if (c != ' ')
            digits += c;
    for (std::size_t i = 0; i < digits.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}

//  The answer to a query for the AAAA records of host1: an alias, then two addresses with different times to live.
const std::string question = "05686f73743100 001c 0001";
const std::string message = "0001 8180 0001 0003 0000 0000" + question + "c00c 0005 0001 0000003c 0002 c00c" +
                            "c00c 001c 0001 0000003c 0010 20010db8000000000000000000000001" +
                            "c00c 001c 0001 0000002a 0010 20010db8000000000000000000000002";

TEST(ResolverAnswer, HasTheAddressesAndTheSmallestTimeToLive) {
    const ResolverAnswer answer = readResolverAnswer(bytesOf(message));
    EXPECT_EQ(answer.problem, "");
    EXPECT_EQ(answer.addresses, (std::vector<std::string>{"2001:db8::1", "2001:db8::2"}));
    EXPECT_EQ(answer.ttl, 42U);
}

TEST(ResolverAnswer, WithoutRecordsHasNoAddressAndNoProblem) {
    const ResolverAnswer answer = readResolverAnswer(bytesOf("0001 8180 0001 0000 0000 0000" + question));
    EXPECT_EQ(answer.problem, "");
    EXPECT_TRUE(answer.addresses.empty());
}

TEST(ResolverAnswer, CutAnywhereIsMalformed) {
    const std::vector<std::uint8_t> whole = bytesOf(message);
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const ResolverAnswer answer = readResolverAnswer({whole.data(), length});
        EXPECT_EQ(answer.problem, "the answer of the resolver is malformed") << length;
        EXPECT_TRUE(answer.addresses.empty()) << length;
    }
}

TEST(ResolverAnswer, IsReadFromAnswersWithRandomChanges) {
    std::mt19937 random(1);
    const std::vector<std::uint8_t> whole = bytesOf(message);
    for (int round = 0; round < 20000; ++round) {
        std::vector<std::uint8_t> bytes = whole;
        for (int changes = 0; changes < 4; ++changes)
            bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
        static_cast<void>(readResolverAnswer(bytes));
    }
}

}  // namespace
