#include "localaddr.h"

#include "address_model.h"
#include "service_platform.h"
#include "service_support.h"

#include <cstdio>
#include <cstring>
#include <optional>
#include <random>

#include <arpa/inet.h>

#include <gtest/gtest.h>

namespace {

class LocalAddresses : public testing::Test {
protected:
    LocalAddresses() { platform::reset(), system.emplace(); }
    ~LocalAddresses() override { system.reset(), platform::reset(); }

    std::string listOf(const Lines& addresses) {
        system->set(addresses);
        std::string list;
        EXPECT_EQ(getLocalIpv6List(list), 0);
        EXPECT_EQ(system->lists_out, 0);
        EXPECT_EQ(system->wrong_frees, 0);
        return list;
    }

    std::optional<FakeInterfaces> system;
};

TEST_F(LocalAddresses, EveryKindOfTheTableIsPublishedOrLeftOut) {
    const std::vector<Lines> rows = readTable("address_kinds.txt");
    ASSERT_GT(rows.size(), 40U);
    for (const Lines& row : rows)
        EXPECT_EQ(listOf({row[0]}), row.size() > 1 ? row[1] : "") << row[0];
}

TEST_F(LocalAddresses, AHostWithLoopbackAndLinkLocalOnlyReturnsAnEmptyText) {
    EXPECT_EQ(listOf({"::1", "fe80::1", "fe80::2"}), "");
}

TEST_F(LocalAddresses, AreJoinedByOneCommaInListOrder) {
    EXPECT_EQ(listOf({"::1", "2001:db8::2", "fe80::1", "2001:db8::1", "fd00::1"}), "2001:db8::2,2001:db8::1,fd00::1");
}

TEST_F(LocalAddresses, AnAddressThatOccursTwiceIsListedTwice) {
    EXPECT_EQ(listOf({"2001:db8::1", "fe80::1", "2001:db8::1"}), "2001:db8::1,2001:db8::1");
}

TEST_F(LocalAddresses, EntriesWithoutAddressAndOtherFamiliesAreSkipped) {
    EXPECT_EQ(listOf({"", "packet", "192.0.2.1", "2001:db8::1", "", "127.0.0.1"}), "2001:db8::1");
}

TEST_F(LocalAddresses, FlagsAndNamesAreIgnored) {
    system->flagless = true;
    EXPECT_EQ(listOf({"2001:db8::1"}), "2001:db8::1");
}

TEST_F(LocalAddresses, TheUnspecifiedAddressIsKept) {
    EXPECT_EQ(listOf({"::", "::1"}), "::");
}

TEST_F(LocalAddresses, AnEmptyInterfaceListReturns0AndNothing) {
    EXPECT_EQ(listOf({}), "");
}

TEST_F(LocalAddresses, AFailureReturnsMinusOneAndAppendsAndFreesNothing) {
    system->set(Lines{"2001:db8::1"});
    system->fails = true;
    std::string list = "kept";
    EXPECT_EQ(getLocalIpv6List(list), -1);
    EXPECT_EQ(list, "kept");
    EXPECT_EQ(system->lists_out, 0);
}

TEST_F(LocalAddresses, AreAppendedToTheCallersText) {
    system->set(Lines{"2001:db8::1"});
    std::string list = "x";
    EXPECT_EQ(getLocalIpv6List(list), 0);
    EXPECT_EQ(list, "x,2001:db8::1");
}

TEST_F(LocalAddresses, AnAddressThatCannotBeConvertedIsDropped) {
    int calls = 0;
    platform::hooks().inet_ntop = [&](int, const void*, char* text, socklen_t) -> const char* {
        return ++calls == 2 ? nullptr : strcpy(text, "a");
    };
    EXPECT_EQ(listOf({"2001:db8::1", "2001:db8::2", "2001:db8::3"}), "a,a");
    EXPECT_EQ(calls, 3);
}

TEST_F(LocalAddresses, AConversionThatFailsForAllReturnsAnEmptyText) {
    platform::hooks().inet_ntop = [](int, const void*, char*, socklen_t) -> const char* { return nullptr; };
    EXPECT_EQ(listOf({"2001:db8::1", "2001:db8::2"}), "");
}

TEST_F(LocalAddresses, EachIsConvertedIntoAClearedBufferOf48Bytes) {
    const auto convert = [&](int family, const void*, char* text, socklen_t size) -> const char* {
        EXPECT_EQ(family, AF_INET6);
        EXPECT_EQ(size, 48U);
        EXPECT_EQ(std::string(text, 48), std::string(48, '\0'));
        memset(text, 'x', 46);
        return text;
    };
    platform::hooks().inet_ntop = convert;
    EXPECT_EQ(listOf({"2001:db8::1", "2001:db8::2"}), std::string(46, 'x') + "," + std::string(46, 'x'));
}

TEST_F(LocalAddresses, AThousandAreAllListed) {
    Lines addresses;
    std::string expected;
    for (int i = 1; i <= 1000; ++i) {
        char text[32];
        snprintf(text, sizeof text, "2001:db8::%x", i);
        addresses.emplace_back(text);
        expected += (expected.empty() ? "" : ",") + addresses.back();
    }
    EXPECT_EQ(listOf(addresses), expected);
}

//  Generates bytes near the limits of the address types, many of them zero.
TEST_F(LocalAddresses, AgreeWithASecondFilterOn150000GeneratedAddresses) {
    static constexpr std::uint8_t heads[] = {0, 0, 0, 0, 0xff, 0xfe, 0xfe, 0xfc, 0x20};
    static constexpr std::uint8_t bytes[] = {0, 0, 0, 0, 0, 1, 2, 0x7f, 0x80, 0xbf, 0xc0, 0xfe, 0xff, 0xff};
    std::mt19937 random(6);
    const auto any = [&](const auto& of) { return of[random() % std::size(of)]; };
    for (int list = 0; list < 30000; ++list) {
        std::vector<AddressBytes> addresses(5);
        std::string expected;
        for (AddressBytes& address : addresses) {
            const std::size_t zeros = random() % 18;
            for (std::size_t i = 0; i < 16; ++i)
                address[i] = i < zeros ? std::uint8_t{0} : i == 0 ? any(heads) : any(bytes);
            if (modelIsPublished(address))
                expected += (expected.empty() ? "" : ",") + modelAddressText(address);
        }
        system->set(addresses);
        std::string text;
        ASSERT_EQ(getLocalIpv6List(text), 0);
        ASSERT_EQ(text, expected);
    }
}

}  // namespace
