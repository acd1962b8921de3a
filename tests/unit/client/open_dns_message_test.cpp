//  The bytes of updates and queries, and the comparison of answers with the expected records.
#include "dns/message.h"

#include "dns/answer.h"
#include "dns/pointers.h"
#include "open_dns_support.h"

#include <gtest/gtest.h>

namespace {

using namespace opentest;
using namespace rdbopen;

//  RFC 2136 section 2: an update has a zone, prerequisites and updates. All names except the zone's are compressed:
//  they end with a pointer to an earlier name.
TEST(DnsUpdate, ExcludesAliasesThenDeletesEachSetThenAddsItsRecords) {
    const std::vector<RecordSet> sets{{"h.example.org", typeAaaa, {fromHex("20010db8000000000000000000000001")}},
                                      {"h.example.org", typeHttps, {fromHex("000100")}},
                                      {"_80._https.h.example.org", typeHttps, {}}};
    const std::string zone = "07 6578616d706c65 03 6f7267 00 0006 0001";
    const std::string expected = "1234 2800 0001 0001 0005 0000" + zone +                    //
                                 "01 68 c00c 0005 00fe 00000000 0000" +                      // h must have no CNAME
                                 "c01d 001c 00ff 00000000 0000" +                            // delete all AAAA of h
                                 "c01d 0041 00ff 00000000 0000" +                            // delete all HTTPS of h
                                 "03 5f3830 06 5f6874747073 c01d 0041 00ff 00000000 0000" +  //
                                 "c01d 001c 0001 0000003c 0010 20010db8000000000000000000000001" +
                                 "c01d 0041 0001 0000003c 0003 000100";
    EXPECT_EQ(toHex(*updateMessage(0x1234, "example.org", 60, sets)), toHex(fromHex(expected)));
}

TEST(DnsUpdate, ExcludesAnAliasOnceAtEachNameThatGetsRecords) {
    const std::vector<RecordSet> sets{{"a.example.org", typeAaaa, {}},
                                      {"a.example.org", typeHttps, {DnsBytes(3)}},
                                      {"b.example.org", typeAaaa, {DnsBytes(16), DnsBytes(16)}},
                                      {"b.example.org", typeHttps, {DnsBytes(3)}},
                                      {"c.example.org", typeHttps, {}}};
    EXPECT_EQ(ownersOfRecords(sets), (std::vector<std::string>{"a.example.org", "b.example.org"}));
    const DnsBytes wire = *updateMessage(1, "example.org", 60, sets);
    EXPECT_EQ(toHex({wire.begin() + 4, wire.begin() + 12}), "0001000200090000");
}

TEST(DnsUpdate, HasTheTtlOfTheUrl) {
    const std::vector<RecordSet> sets{{"example.org", typeAaaa, {DnsBytes(16)}}};
    for (const std::uint32_t ttl : {0U, 1U, 2147483647U}) {
        const DnsBytes wire = *updateMessage(1, "example.org", ttl, sets);
        const DnsBytes last(wire.end() - 22, wire.end() - 18);
        EXPECT_EQ(last, (DnsBytes{static_cast<std::uint8_t>(ttl >> 24), static_cast<std::uint8_t>(ttl >> 16),
                                  static_cast<std::uint8_t>(ttl >> 8), static_cast<std::uint8_t>(ttl)}));
    }
}

//  RFC 2136 section 2.4.3: the request has a zone, one prerequisite of class NONE, and no updates.
TEST(DnsUpdate, CanRequireThatTheZoneItselfHasNoSuchRecordSet) {
    EXPECT_EQ(toHex(absenceMessage(0x1234, "example.org", "h.example.org", typeAaaa)),
              toHex(fromHex("1234 2800 0001 0001 0000 0000 07 6578616d706c65 03 6f7267 00 0006 0001"
                            "01 68 c00c 001c 00fe 00000000 0000")));
}

//  RFC 2136 sections 2.5.4 and 2.5.1: exactly these records are deleted and added.
TEST(DnsUpdate, OfPointersChangesOnlyRecordsWithThisTarget) {
    const std::string zone = "01 32 03 697036 04 61727061 00 0006 0001";
    const std::string expected = "1234 2800 0001 0001 0002 0000" + zone +  //
                                 "01 61 c00c 0005 00fe 00000000 0000" +    // a must have no CNAME
                                 "01 62 c00c 000c 00fe 00000000 0003 016800" + "c01c 000c 0001 0000003c 0003 016800";
    EXPECT_EQ(toHex(*pointerMessage(0x1234, "2.ip6.arpa", 60, fromHex("0168 00"), {"b.2.ip6.arpa"}, {"a.2.ip6.arpa"})),
              toHex(fromHex(expected)));
    const std::vector<std::string> many(6000, "a.2.ip6.arpa");
    EXPECT_EQ(pointerMessage(1, "2.ip6.arpa", 60, {0}, {}, many).status().code, errorBadRequest);
    EXPECT_EQ(pointerMessage(1, "2.ip6.arpa", 60, {0}, many, {}).status().code, errorBadRequest);
}

TEST(DnsPointers, HaveTheNibblesOfTheAddressInReverse) {
    EXPECT_EQ(pointerName(fromHex("20010db8000000000000000000000a1b")),
              "b.1.a.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.8.b.d.0.1.0.0.2.ip6.arpa");
}

TEST(DnsPointers, AreInTheLongestZoneThatHasTheName) {
    const std::vector<std::string> zones{"2.ip6.arpa", "1.2.ip6.arpa", "3.ip6.arpa"};
    EXPECT_EQ(zoneOfPointer(zones, "5.1.2.ip6.arpa"), "1.2.ip6.arpa");
    EXPECT_EQ(zoneOfPointer(zones, "5.2.ip6.arpa"), "2.ip6.arpa");
    EXPECT_EQ(zoneOfPointer(zones, "1.2.ip6.arpa"), "1.2.ip6.arpa");
    EXPECT_EQ(zoneOfPointer(zones, "5.12.ip6.arpa"), "");
    EXPECT_EQ(zoneOfPointer({}, "5.ip6.arpa"), "");
}

TEST(DnsQuery, RequestsNoRecursionAndAnnouncesTheLengthOfDatagrams) {
    EXPECT_EQ(toHex(queryMessage(0x1234, "example.org", typeSoa)),
              toHex(fromHex("1234 0000 0001 0000 0000 0001 07 6578616d706c65 03 6f7267 00 0006 0001"
                            "00 0029 04d0 00000000 0000")));
}

//  Each further AAAA record makes the message 28 bytes longer: 16 bytes of data, and 12 bytes before them.
TEST(DnsUpdate, HasAtMost65535Bytes) {
    RecordSet set{"h.example.org", typeAaaa, {DnsBytes(16)}};
    const std::size_t most = 1 + (65535 - updateMessage(1, "example.org", 60, {set})->size()) / 28;
    set.records.assign(most, DnsBytes(16));
    EXPECT_GT(updateMessage(1, "example.org", 60, {set})->size(), 65535U - 28U);
    set.records.emplace_back(16);
    EXPECT_EQ(updateMessage(1, "example.org", 60, {set}).status().code, errorBadRequest);
    set.records.resize(200000);
    EXPECT_EQ(updateMessage(1, "example.org", 60, {set}).status().code, errorBadRequest);
}

//  The offset in a compression pointer has 14 bits, so no pointer can refer to a name after offset 16383.
TEST(DnsUpdate, NamesAfterOffset16383AreRight) {
    std::vector<RecordSet> sets{{"h.example.org", typeHttps, {DnsBytes(3)}}};
    for (int i = 0; i < 1200; ++i)
        sets.push_back({"_" + std::to_string(1000 + i) + "._https.h.example.org", typeHttps, {DnsBytes(3)}});
    const DnsBytes wire = *updateMessage(1, "example.org", 60, sets);
    const Result<Packet> packet = parseMessage(wire);
    ASSERT_TRUE(packet.ok());
    const ldns_rr_list* const updates = ldns_pkt_authority(packet->get());
    ASSERT_EQ(ldns_rr_list_rr_count(updates), 2402U);
    for (const std::size_t at : {1200U, 2401U}) {
        const std::unique_ptr<char, void (*)(void*)> owner(ldns_rdf2str(ldns_rr_owner(ldns_rr_list_rr(updates, at))),
                                                           std::free);
        EXPECT_STREQ(owner.get(), "_2199._https.h.example.org.");
    }
}

bool holds(const std::vector<AnswerRecord>& answer, const std::vector<DnsBytes>& expected) {
    const Result<Packet> packet = parseMessage(plainAnswer(1, 0, 0, answer));
    return packet.ok() && answerHolds(**packet, {"h.example.org", typeHttps, expected});
}

TEST(DnsAnswer, MatchesASetIfItHasExactlyItsRecordsInAnyOrder) {
    const DnsBytes a = fromHex("0001 00 0006 0010 20010db8000000000000000000000001");
    const DnsBytes b = fromHex("0002 00 0003 0002 20fb");
    const AnswerRecord first{"h.example.org", typeHttps, a};
    const AnswerRecord second{"H.Example.org", typeHttps, b};
    EXPECT_TRUE(holds({}, {}));
    EXPECT_TRUE(holds({first, second}, {a, b}));
    EXPECT_TRUE(holds({second, first}, {a, b}));
    EXPECT_FALSE(holds({first}, {a, b}));
    EXPECT_FALSE(holds({first, second}, {a}));
    EXPECT_FALSE(holds({first}, {}));
    EXPECT_FALSE(holds({}, {a}));
}

TEST(DnsAnswer, RecordsOfAnotherNameOrTypeAreIgnored) {
    const DnsBytes a = fromHex("0001 00");
    EXPECT_FALSE(holds({{"g.example.org", typeHttps, a}}, {a}));
    EXPECT_FALSE(holds({{"h.example.org", 64, a}}, {a}));
    EXPECT_TRUE(holds({{"h.example.org", typeHttps, a}, {"h.example.org", 46, DnsBytes(40)}}, {a}));
}

}  // namespace
