//  The options `only` and `skip` of a url.
#include "request/address_filter.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace {

using namespace rdbopen;

using Texts = std::vector<std::string>;

Ipv6Address binary(const char* text) {
    Ipv6Address address{};
    EXPECT_EQ(inet_pton(AF_INET6, text, address.data()), 1);
    return address;
}

AddressFilter filterOf(const std::string& only, const std::string& skip) {
    AddressFilter filter;
    EXPECT_EQ((only.empty() ? Status{} : filter.takeOnly(only)).reason, "");
    EXPECT_EQ((skip.empty() ? Status{} : filter.takeSkip(skip)).reason, "");
    return filter;
}

Texts passed(const AddressFilter& filter, const Texts& addresses, const LocalAddresses& local = {}) {
    Texts found;
    for (const std::string& address : addresses)
        if (filter.passes(address, local))
            found.push_back(address);
    return found;
}

TEST(AddressFilter, WithoutOptionsAllAddressesPass) {
    const Texts all{"192.0.2.1", "fc00::1", "2001:db8::1"};
    EXPECT_EQ(passed({}, all, {{binary("2001:db8::1"), {0xff, {"eth0"}}}}), all);
}

TEST(AddressFilter, UniqueLocalAddressesAreSkippedOnRequest) {
    const Texts all{"fbff::1", "fc00::1", "fd12::1", "fdff:ffff::1", "fe00::1", "192.0.2.1"};
    EXPECT_EQ(passed(filterOf("", "ula"), all), (Texts{"fbff::1", "fe00::1", "192.0.2.1"}));
}

TEST(AddressFilter, AddressesAreSkippedByTheirFlagsOnRequest) {
    const LocalAddresses local{{binary("2001:db8::1"), {0x80, {"eth0"}}},
                               {binary("2001:db8::2"), {flagTemporary, {"eth0"}}},
                               {binary("2001:db8::3"), {flagDeprecated, {"eth0"}}},
                               {binary("2001:db8::4"), {flagDeprecated | flagTemporary, {"eth0"}}}};
    const Texts all{"2001:db8::1", "2001:db8::2", "2001:db8::3", "2001:db8::4", "2001:db8::5"};
    const auto kept = [&](const char* skip) {
        std::string last;
        for (const std::string& address : passed(filterOf("", skip), all, local))
            last += address.back();
        return last;
    };
    EXPECT_EQ(kept(""), "12345");
    EXPECT_EQ(kept("temporary"), "135");
    EXPECT_EQ(kept("deprecated"), "125");
    EXPECT_EQ(kept("temporary,deprecated"), "15");
}

TEST(AddressFilter, AddressesAreSkippedByTheNameOfTheirInterface) {
    const LocalAddresses local{{binary("2001:db8::1"), {0, {"eth0"}}},
                               {binary("2001:db8::2"), {0, {"wg0"}}},
                               {binary("2001:db8::3"), {0, {"tun1"}}},
                               {binary("2001:db8::4"), {0, {"eth0", "wg0"}}},
                               {binary("2001:db8::5"), {0, {"tun1", "wg0"}}}};
    const Texts all{"2001:db8::1", "2001:db8::2", "2001:db8::3", "2001:db8::4", "2001:db8::5", "2001:db8::6"};
    EXPECT_EQ(passed(filterOf("", "if:wg*"), all, local),
              (Texts{"2001:db8::1", "2001:db8::3", "2001:db8::4", "2001:db8::5", "2001:db8::6"}));
    EXPECT_EQ(passed(filterOf("", "if:wg0,if:tun[0-9]"), all, local),
              (Texts{"2001:db8::1", "2001:db8::4", "2001:db8::6"}));
    EXPECT_EQ(passed(filterOf("", "if:wg"), all, local), all);
}

TEST(AddressFilter, OnlyAddressesWithOneOfThePrefixesPass) {
    const Texts all{"2001:db8:1::1",      "2001:db8:1:ffff::1", "2001:db8:2::1", "2001:db8:3::1",
                    "2001:db8:0:ffff::1", "2001:DB8:1:0::1",    "192.0.2.1"};
    EXPECT_EQ(passed(filterOf("2001:db8:1::/48,2001:db8:2::1", ""), all),
              (Texts{"2001:db8:1::1", "2001:db8:1:ffff::1", "2001:db8:2::1", "2001:DB8:1:0::1"}));
    EXPECT_EQ(passed(filterOf("2001:db8:2::/47", ""), all), (Texts{"2001:db8:2::1", "2001:db8:3::1"}));
    EXPECT_EQ(passed(filterOf("::/0", ""), all).size(), 6U);
    EXPECT_EQ(passed(filterOf("2001:db8:4::/48", ""), all), Texts());
}

TEST(AddressFilter, AnAddressMustPassBothOptions) {
    EXPECT_EQ(passed(filterOf("fd00::/16,2001:db8::/32", "ula"), {"fd00::1", "2001:db8::1", "2001:db9::1"}),
              Texts{"2001:db8::1"});
}

//  For each length, the last bit of the prefix is compared with the address, and the bit after the prefix is not.
TEST(AddressFilter, APrefixMayHaveAnyLength) {
    for (unsigned length = 1; length <= 128; ++length) {
        const auto textWithBit = [](unsigned bit) {
            Ipv6Address address{};
            if (bit < 128)
                address[bit / 8] = static_cast<std::uint8_t>(0x80 >> bit % 8);
            char text[INET6_ADDRSTRLEN];
            return std::string(inet_ntop(AF_INET6, address.data(), text, sizeof text));
        };
        const AddressFilter filter = filterOf("::/" + std::to_string(length), "");
        EXPECT_FALSE(filter.passes(textWithBit(length - 1), {})) << length;
        EXPECT_TRUE(filter.passes(textWithBit(length), {})) << length;
    }
}

TEST(AddressFilter, AMalformedValueIsRefusedWithAReason) {
    const std::string only = "malformed url: only is not a list of IPv6 prefixes, as in 2001:db8:1::/48";
    const std::string bits = "malformed url: only has a prefix with bits after its length; 2001:db8:1::/48 has none";
    const std::pair<const char*, std::string> rows[] = {
        {"", only},
        {"2001:db8::/", only},
        {"2001:db8::/129", only},
        {"2001:db8::/-1", only},
        {"192.0.2.0/24", only},
        {"2001:db8::/32,", only},
        {"eth0", only},
        {"2001:db8::/32/32", only},
        {"2001:db9::/31", bits},
        {"2001:db8::1/64", bits},
    };
    for (const auto& [value, reason] : rows)
        EXPECT_EQ(AddressFilter().takeOnly(value).reason, reason) << value;
    for (const char* const value : {"", "ula,", "ula,ula", "ULA", "tentative", "if:", "if:wg0,", "if", "eth0"})
        EXPECT_EQ(AddressFilter().takeSkip(value).reason,
                  "malformed url: skip is not a list of ula, temporary, deprecated and if:NAME, the words at most once")
            << value;
}

TEST(AddressFilter, KnowsWhetherItLeavesNothingOfTheHostsAddresses) {
    const LocalAddresses own{{binary("::1"), {0, {"lo"}}},
                             {binary("fe80::1"), {0, {"eth0"}}},
                             {binary("2001:db8::1"), {0, {"eth0"}}},
                             {binary("fd00::1"), {0, {"eth0"}}}};
    EXPECT_FALSE(AddressFilter().leavesNothingOf(own));
    EXPECT_FALSE(filterOf("2001:db8::/32", "ula").leavesNothingOf(own));
    EXPECT_TRUE(filterOf("2001:db9::/32", "").leavesNothingOf(own));
    EXPECT_TRUE(filterOf("fe80::/10", "").leavesNothingOf(own));
    EXPECT_TRUE(filterOf("", "if:eth*").leavesNothingOf(own));
    EXPECT_FALSE(filterOf("2001:db9::/32", "").leavesNothingOf({{binary("fe80::1"), {0, {"eth0"}}}}));
}

TEST(AddressFilter, PassesTheSameKindsOfAddressesAsTheService) {
    for (const char* text :
         {"ff02::1", "fe80::1", "febf::1", "fec0::1", "feff::1", "::1", "::192.0.2.1", "::ffff:192.0.2.1"})
        EXPECT_EQ(AddressFilter().passing({{binary(text), {0, {"eth0"}}}}).size(), 0U) << text;
    for (const char* text : {"2001:db8::1", "fd00::1", "fe7f::1", "64:ff9b:1::1", "::1:0:0:1"})
        EXPECT_EQ(AddressFilter().passing({{binary(text), {0, {"eth0"}}}}).size(), 1U) << text;
}

TEST(AddressFilter, AddressesThatTheHostDoesNotHaveHaveNoInterface) {
    const Result<Texts> left = filterOf("", "if:*").apply({"2001:db8:ffff:ffff::1", "192.0.2.1"});
    ASSERT_TRUE(left.ok()) << left.status().reason;
    EXPECT_EQ(*left, (Texts{"2001:db8:ffff:ffff::1", "192.0.2.1"}));
}

}  // namespace
