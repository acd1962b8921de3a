#include "dns/records.h"

#include "open_dns_support.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace {

using namespace opentest;
using namespace rdbopen;

Ipv6Address address(const std::string& text) {
    Ipv6Address binary{};
    EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), binary.data()), 1) << text;
    return binary;
}

std::vector<Ipv6Address> addresses(std::size_t count) {
    std::vector<Ipv6Address> list;
    for (std::size_t i = 1; i <= count; ++i)
        list.push_back(address("2001:db8::" + std::to_string(i)));
    return list;
}

//  Returns one line per set: its owner, its type and its records.
std::vector<std::string> lines(const std::vector<RecordSet>& sets) {
    std::vector<std::string> texts;
    for (const RecordSet& set : sets) {
        texts.push_back(set.owner + " " + std::to_string(set.type));
        for (const DnsBytes& record : set.records)
            texts.back() += " " + toHex(record);
    }
    return texts;
}

using Lines = std::vector<std::string>;

const std::string one = "20010db8000000000000000000000001";
const std::string two = "20010db8000000000000000000000002";
const std::string target = "05686f737431076578616d706c65036f726700";  // host1.example.org
const std::string first = "000100";                                   // priority 1, target "."
const std::string second = "000200";
const std::string port8443 = "0003000220fb";
const std::string port80 = "000300020050";
const std::string hint = "0006";  // followed by its length

TEST(DnsRecords, WithoutPortsThereAreOnlyAddressRecords) {
    EXPECT_EQ(lines(recordSets("host1.example.org", addresses(2), {})),
              (Lines{"host1.example.org 28 " + one + " " + two, "host1.example.org 65"}));
}

TEST(DnsRecords, Port443IsServedAtTheName) {
    EXPECT_EQ(lines(recordSets("host1.example.org", addresses(2), {443})),
              (Lines{"host1.example.org 28 " + one + " " + two,
                     "host1.example.org 65 " + first + hint + "0020" + one + two}));
}

TEST(DnsRecords, WithPort443AnotherPortIsServedAtItsOwnName) {
    EXPECT_EQ(lines(recordSets("host1.example.org", addresses(1), {443, 8443})),
              (Lines{"host1.example.org 28 " + one, "host1.example.org 65 " + first + hint + "0010" + one,
                     "_8443._https.host1.example.org 65 0001" + target + hint + "0010" + one}));
}

TEST(DnsRecords, WithoutPort443OtherPortsAreServedAtTheHostNameInOrder) {
    EXPECT_EQ(lines(recordSets("host1.example.org", addresses(1), {8443, 80})),
              (Lines{"host1.example.org 28 " + one,
                     "host1.example.org 65 " + first + port8443 + hint + "0010" + one + " " + second + port80 + hint +
                         "0010" + one,
                     "_8443._https.host1.example.org 65 0001" + target + hint + "0010" + one,
                     "_80._https.host1.example.org 65 0001" + target + hint + "0010" + one}));
}

TEST(DnsRecords, WithoutAnAddressAllSetsAreEmpty) {
    EXPECT_EQ(lines(recordSets("host1.example.org", {}, {443, 8443})),
              (Lines{"host1.example.org 28", "host1.example.org 65", "_8443._https.host1.example.org 65"}));
    EXPECT_EQ(lines(recordSets("host1.example.org", {}, {8443})),
              (Lines{"host1.example.org 28", "host1.example.org 65", "_8443._https.host1.example.org 65"}));
}

TEST(DnsRecords, AHintHasAtMostSixteenAddresses) {
    for (const std::size_t count : {1U, 15U, 16U, 17U, 40U}) {
        const std::vector<RecordSet> sets = recordSets("h.z", addresses(count), {443});
        EXPECT_EQ(sets[0].records.size(), count);
        EXPECT_EQ(sets[1].records[0].size(), 2 + 1 + 4 + 16 * std::min<std::size_t>(count, 16)) << count;
    }
}

TEST(DnsRecords, IPv4AddressesAreNeverPublished) {
    EXPECT_EQ(ipv6Addresses({"192.0.2.1", "2001:db8::1"}), addresses(1));
}

TEST(DnsRecords, AnAddressInTwoNotationsIsPublishedOnce) {
    EXPECT_EQ(ipv6Addresses({"2001:db8::1", "2001:DB8:0::1"}), addresses(1));
}

TEST(DnsRecords, TheNameIsTheZonesOrBelowItOrIsCompletedByTheZone) {
    const struct {
        const char* name;
        const char* full;  // null if the zone does not contain it
    } rows[] = {
        {"host1", "host1.example.org"},
        {"HOST1.Example.Org", "host1.example.org"},
        {"a.b.example.org", "a.b.example.org"},
        {"example.org", "example.org"},
        {"org", "org.example.org"},
        {"host1.example.com", nullptr},
        {"host1.badexample.org", nullptr},
        {"badexample.org", nullptr},
        {"example.org.host1", nullptr},
    };
    for (const auto& row : rows) {
        const Result<std::string> full = nameInZone(row.name, "example.org");
        if (row.full != nullptr) {
            ASSERT_TRUE(full.ok()) << row.name;
            EXPECT_EQ(*full, row.full);
        } else {
            EXPECT_EQ(full.status().code, errorBadRequest) << row.name;
            EXPECT_EQ(full.status().reason, "the zone example.org does not hold the name " + std::string(row.name));
        }
    }
}

}  // namespace
