#include "olk_resolve.h"

#include "fake_resolver.h"
#include "olk_string.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Pairs = std::vector<std::pair<int, socklen_t>>;

class Resolve : public testing::Test {
protected:
    int resolve(const char* name) { return olk::net::get_ips_by_domain(name, ipv4, ipv6); }
    //  Returns both outputs, separated by a blank.
    std::string texts() const { return std::string(ipv4.c_str()) + " " + ipv6.c_str(); }

    FakeResolver resolver;
    olk::string ipv4;
    olk::string ipv6;
};

//  A string type whose memory is always exhausted.
struct no_text {
    bool empty() const { return true; }
    void assign(const char*) {}
};

TEST(StoreFirstAddress, ReturnsTheNumberOfTextsThatItStored) {
    const in_addr address = {htonl(INADDR_LOOPBACK)};
    olk::string text;
    EXPECT_EQ(olk::net::store_first_address(AF_INET, &address, text), 1);
    EXPECT_EQ(olk::net::store_first_address(AF_INET, &address, text), 0) << "the text already has an address";
    no_text none;
    EXPECT_EQ(olk::net::store_first_address(AF_INET, &address, none), 0) << "no memory";
}

TEST_F(Resolve, AnIpv4LiteralYieldsItself) {
    EXPECT_EQ(resolve("192.0.2.10"), 0);
    EXPECT_EQ(texts(), "192.0.2.10 ");
}

TEST_F(Resolve, AnIpv6LiteralYieldsItself) {
    EXPECT_EQ(resolve("2001:db8::5"), 0);
    EXPECT_EQ(texts(), " 2001:db8::5");
}

TEST_F(Resolve, AnIpv6AddressIsWrittenInItsShortestForm) {
    EXPECT_EQ(resolve("2001:0DB8:0:0:0:0:0:0005"), 0);
    EXPECT_EQ(texts(), " 2001:db8::5");
}

TEST_F(Resolve, TheLongestIpv6TextFits) {
    resolver.add("long.example", {"fedc:ba98:7654:3210:fedc:ba98:7654:3210"});
    EXPECT_EQ(resolve("long.example"), 0);
    EXPECT_EQ(texts(), " fedc:ba98:7654:3210:fedc:ba98:7654:3210");
    EXPECT_EQ(ipv6.size(), 39u);
}

TEST_F(Resolve, TheFirstAddressOfEachFamilyIsTakenInTheResolversOrder) {
    resolver.add("many.example", {"2001:db8::2", "192.0.2.2", "192.0.2.1", "2001:db8::1", "192.0.2.2"});
    EXPECT_EQ(resolve("many.example"), 0);
    EXPECT_EQ(texts(), "192.0.2.2 2001:db8::2");
}

TEST_F(Resolve, ANameWithIpv4AddressesOnlyLeavesIpv6Empty) {
    resolver.add("four.example", {"192.0.2.4", "192.0.2.3"});
    EXPECT_EQ(resolve("four.example"), 0);
    EXPECT_EQ(texts(), "192.0.2.4 ");
}

TEST_F(Resolve, ANameWithIpv6AddressesOnlyLeavesIpv4Empty) {
    resolver.add("six.example", {"2001:db8::6", "2001:db8::5"});
    EXPECT_EQ(resolve("six.example"), 0);
    EXPECT_EQ(texts(), " 2001:db8::6");
}

TEST_F(Resolve, ANameThatDoesNotResolveLeavesBothEmpty) {
    EXPECT_EQ(resolve("no.such.example"), -1);
    EXPECT_EQ(texts(), " ");
}

TEST_F(Resolve, AnEmptyListIsAFailure) {
    resolver.add("empty.example", {});
    EXPECT_EQ(resolve("empty.example"), -1);
    EXPECT_EQ(texts(), " ");
}

TEST_F(Resolve, EntriesOfOtherFamiliesAreSkipped) {
    resolver.add("mixed.example", {"local", "packet", "192.0.2.1", "local", "2001:db8::1", "packet"});
    EXPECT_EQ(resolve("mixed.example"), 0);
    EXPECT_EQ(texts(), "192.0.2.1 2001:db8::1");
}

TEST_F(Resolve, OnlyEntriesOfOtherFamiliesAreAFailure) {
    resolver.add("local.example", {"local", "local"});
    EXPECT_EQ(resolve("local.example"), -1);
    EXPECT_EQ(texts(), " ");
}

TEST_F(Resolve, ANonEmptyOutputIsUnchanged) {
    resolver.add("both.example", {"192.0.2.1", "2001:db8::1"});
    ipv4.assign("kept");
    EXPECT_EQ(resolve("both.example"), 0);
    EXPECT_EQ(texts(), "kept 2001:db8::1");
    ipv4.clear();
    EXPECT_EQ(resolve("both.example"), 0);
    EXPECT_EQ(texts(), "192.0.2.1 2001:db8::1");
}

TEST_F(Resolve, TwoNonEmptyOutputsAreAFailure) {
    resolver.add("both.example", {"192.0.2.1", "2001:db8::1"});
    ipv4.assign("a");
    ipv6.assign("b");
    EXPECT_EQ(resolve("both.example"), -1);
    EXPECT_EQ(texts(), "a b");
}

TEST_F(Resolve, OnlyAddressesOfAFilledFamilyAreAFailure) {
    resolver.add("four.example", {"192.0.2.1"});
    ipv4.assign("kept");
    EXPECT_EQ(resolve("four.example"), -1);
    EXPECT_EQ(texts(), "kept ");
}

TEST_F(Resolve, AfterAnAddressThatCannotBeConvertedTheNextOfItsFamilyIsUsed) {
    resolver.add("many.example", {"192.0.2.1", "2001:db8::1", "192.0.2.2", "2001:db8::2"});
    resolver.unconvertible = {1, 1};
    EXPECT_EQ(resolve("many.example"), 0);
    EXPECT_EQ(texts(), "192.0.2.2 2001:db8::2");
}

TEST_F(Resolve, OnlyAddressesThatCannotBeConvertedAreAFailure) {
    resolver.add("both.example", {"192.0.2.1", "2001:db8::1"});
    resolver.unconvertible = {1, 1};
    EXPECT_EQ(resolve("both.example"), -1);
    EXPECT_EQ(texts(), " ");
}

TEST_F(Resolve, TextsAreWrittenIntoABufferOf40Bytes) {
    resolver.add("both.example", {"192.0.2.1", "2001:db8::1"});
    resolve("both.example");
    EXPECT_EQ(resolver.converted, (Pairs{{AF_INET, 40}, {AF_INET6, 40}}));
}

TEST_F(Resolve, OnlyTheAddressesThatAreReturnedAreConverted) {
    resolver.add("many.example", {"192.0.2.1", "192.0.2.2", "2001:db8::1", "2001:db8::2"});
    resolve("many.example");
    EXPECT_EQ(resolver.converted.size(), 2u);
}

TEST_F(Resolve, TheResolverIsCalledOnceWithoutFamilySocketTypeAndService) {
    resolve("no.such.example");
    ASSERT_EQ(resolver.asked, std::vector<std::string>{"no.such.example"});
    const addrinfo& hints = resolver.hints.front();
    EXPECT_EQ(hints.ai_family, AF_UNSPEC);
    EXPECT_EQ(hints.ai_socktype, 0);
    EXPECT_EQ(hints.ai_protocol, 0);
    EXPECT_EQ(hints.ai_flags, 0);
    EXPECT_FALSE(resolver.service_given);
}

//  get_ips_by_domain deliberately never frees the resolver's list. So each successful lookup leaks one small list.
TEST_F(Resolve, TheResolversListIsNeverFreed) {
    resolver.add("both.example", {"192.0.2.1", "2001:db8::1"});
    resolver.add("local.example", {"local"});
    resolve("both.example");
    resolve("192.0.2.1");
    resolve("local.example");
    EXPECT_EQ(resolver.lists_given, 3);
    EXPECT_EQ(resolver.lists_freed, 0);
}

}  // namespace
