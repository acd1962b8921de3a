//  The records of a host that the back end dns finds and removes, with a server whose answers the test determines.
#include "dns/record_text.h"
#include "dns/words.h"
#include "open_dns_support.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>

namespace {

using namespace opentest;
using namespace rdbopen;

const std::string host = "host1.example.org";
const std::string reverse = "8.b.d.0.1.0.0.2.ip6.arpa";
const DnsBytes address = fromHex("20010db8000000000000000000000001");
const std::string pointer = "1.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0." + reverse;
const std::string addressLine = host + " AAAA 2001:db8::1";
const std::string pointerLine = pointer + " PTR " + host;

DnsBytes nameData(const std::string& name) {
    DnsBytes data;
    putDnsName(data, name);
    return data;
}

//  A server with records. Whether it accepts and carries out updates depends on the members that the test sets.
class HoldingServer {
public:
    HoldingServer() {
        records[{host, typeAaaa}] = {address};
        records[{pointer, typePtr}] = {nameData(host)};
    }

    std::map<std::pair<std::string, std::uint16_t>, std::vector<DnsBytes>> records;
    std::atomic<unsigned> updateCode{0};
    std::atomic<bool> removes{true};           // an update that succeeds deletes all records of its zone
    std::atomic<bool> isSigned{true};          // answers to updates with changes have a signature
    std::atomic<bool> cuts{false};             // an update of example.org with changes closes the connection
    std::atomic<bool> wildcard{false};         // the records of example.org come from a wildcard
    std::atomic<bool> wildcardPointer{false};  // the records of the reverse zone come from a wildcard
    std::atomic<bool> refusesPointers{false};
    std::atomic<int> updates{0};  // number of updates with changes

private:
    //  RFC 2136 section 2.2: bytes 8 and 9 of an update are the number of records in its update section.
    static bool hasChanges(const SeenRequest& seen) { return seen.wire[8] != 0 || seen.wire[9] != 0; }

    Reaction react(const SeenRequest& seen) {
        if (refusesPointers && seen.type == typePtr)
            return reply(seen, rcodeRefused, {});
        if (seen.opcode != opcodeUpdate)
            return reply(seen, 0, seen.type == typeSoa ? std::vector{soaOf("example.org")} : answerTo(seen));
        if (!hasChanges(seen))
            return reply(seen, seen.owner == reverse ? wildcardPointer : wildcard);
        ++updates;
        if (cuts && seen.owner == "example.org")
            return {{}, Reaction::Then::end};
        if (!isSigned)
            return {framed(plainAnswer(seen.id, seen.opcode, updateCode)), Reaction::Then::goOn};
        if (updateCode == 0 && removes)
            std::erase_if(records, [&](const auto& one) { return one.first.first.ends_with(seen.owner); });
        return reply(seen, updateCode, {});
    }
    std::vector<AnswerRecord> answerTo(const SeenRequest& seen) {
        std::vector<AnswerRecord> found;
        for (const auto& [key, all] : records)
            if (key.first == seen.owner && (key.second == seen.type || seen.type == typeAny))
                for (const DnsBytes& data : all)
                    found.push_back({key.first, key.second, data});
        return found;
    }
    //  Answers an update whose only prerequisite is that a record set is absent.
    static Reaction reply(const SeenRequest& seen, bool absent) {
        return reply(seen, absent ? rcodeNoError : rcodeYxRrset, {});
    }
    static Reaction reply(const SeenRequest& seen, unsigned code, const std::vector<AnswerRecord>& found) {
        return {framed(genuineAnswer(seen, code, found)), Reaction::Then::goOn};
    }

public:
    DnsServer server{[this](const SeenRequest& seen) { return react(seen); }};
};

class DnsHoldings : public testing::Test {
protected:
    Inspector& inspector() { return *backend->inspector(); }
    std::vector<std::string> held() {
        backend = backendFor(server.server.url("/example.org?ptr=" + reverse), {"key1", testSecret});
        EXPECT_EQ(inspector().openToRead(plainWaiter).reason, "");
        const Result<Holdings> found = inspector().held({"host1", {8443}});
        EXPECT_EQ(found.status().reason, "");
        remaining.clear();
        incomplete = found->incomplete;
        for (const HeldRecord& record : found->records)
            if (!record.ours())
                remaining.push_back(record.text + ": " + record.remains);
        return textsOfOurs(*found);
    }
    //  Removes the records that held() found. Returns the result, and checks which records are reported as deleted.
    Status removal(const std::vector<std::string>& deleted) {
        std::vector<RemovalStep> steps;
        Status status = inspector().remove(steps);
        std::vector<std::string> done;
        for (const RemovalStep& step : steps)
            if (step.status.ok())
                done.insert(done.end(), step.texts.begin(), step.texts.end());
        EXPECT_EQ(done, deleted);
        return status;
    }

    HoldingServer server;
    std::unique_ptr<Backend> backend;
    std::vector<std::string> remaining;
    bool incomplete = false;
};

using Texts = std::vector<std::string>;

TEST_F(DnsHoldings, WithoutTheRecordsOfAReverseZoneTheListIsIncomplete) {
    held();
    EXPECT_FALSE(incomplete);
    server.refusesPointers = true;
    EXPECT_EQ(held(), Texts{addressLine});
    EXPECT_TRUE(incomplete);
}

TEST_F(DnsHoldings, PtrRecordsLeaveBeforeTheAddressesByWhichTheyAreFound) {
    EXPECT_EQ(held(), (Texts{addressLine, pointerLine}));
    EXPECT_EQ(server.updates, 0);
    EXPECT_EQ(removal({pointerLine, addressLine}).code, 0);
    EXPECT_EQ(server.updates, 2);
    EXPECT_EQ(held(), Texts());
}

TEST_F(DnsHoldings, RecordsThatHaveChangedSinceTheyWereShownStay) {
    EXPECT_EQ(held().size(), 2U);
    server.updateCode = 8;  // NXRRSET
    const Status status = removal({});
    EXPECT_EQ(status.code, errorServerRefused);
    EXPECT_NE(status.reason.find("have changed since they were shown"), std::string::npos) << status.reason;
}

TEST_F(DnsHoldings, ARecordThatTheServerStillHasIsNotReportedAsDeleted) {
    EXPECT_EQ(held().size(), 2U);
    server.removes = false;
    const Status status = removal({});
    EXPECT_EQ(status.code, errorServerRefused);
    EXPECT_NE(status.reason.find("but still has a record"), std::string::npos) << status.reason;
}

TEST_F(DnsHoldings, AnAnswerWithoutASignatureIsNoSuccess) {
    EXPECT_EQ(held().size(), 2U);
    server.isSigned = false;
    EXPECT_EQ(removal({}).code, errorBackendFailed);
    EXPECT_EQ(server.updates, 1);  // nothing is sent after it
}

TEST_F(DnsHoldings, ACutConnectionReportsOnlyWhatWasConfirmed) {
    EXPECT_EQ(held().size(), 2U);
    server.cuts = true;
    EXPECT_EQ(removal({pointerLine}).code, errorBackendFailed);
}

TEST_F(DnsHoldings, ARefusalOfBothZonesIsTheResult) {
    EXPECT_EQ(held().size(), 2U);
    server.updateCode = rcodeRefused;
    const Status status = removal({});
    EXPECT_EQ(status.code, errorServerRefused);
    EXPECT_EQ(status.reason.find("REFUSED"), 0U) << status.reason;
}

TEST_F(DnsHoldings, RecordsOfAWildcardAreNotFound) {
    server.wildcard = true;
    EXPECT_EQ(held(), Texts());
    EXPECT_EQ(removal({}).code, 0);
    EXPECT_EQ(server.updates, 0);
}

TEST_F(DnsHoldings, ThePtrRecordOfAWildcardIsNotFound) {
    server.wildcardPointer = true;
    EXPECT_EQ(held(), Texts{addressLine});
    EXPECT_EQ(removal({addressLine}).code, 0);
    EXPECT_EQ(server.updates, 1);
}

TEST_F(DnsHoldings, OtherTypesTargetsAndFormsRemain) {
    server.records[{host, 16}] = {fromHex("026869")};
    server.records[{host, typeHttps}] = {fromHex("00010000010003026832")};  // 1 . alpn=h2
    server.records[{pointer, typePtr}].push_back(nameData("other.example.org"));
    EXPECT_EQ(held(), (Texts{addressLine, pointerLine}));
    EXPECT_EQ(remaining, (Texts{host + " HTTPS: it has another form than the records of the service",
                                host + " TXT: it is of another type",
                                pointer + " PTR other.example.org: it points to another name"}));
}

TEST_F(DnsHoldings, ANameOutsideTheZoneIsRefused) {
    backend = backendFor(server.server.url(), {"key1", testSecret});
    EXPECT_EQ(inspector().openToRead(plainWaiter).code, 0);
    EXPECT_EQ(inspector().held({"host1.example.com", {}}).status().code, errorBadRequest);
}

TEST_F(DnsHoldings, ANameThatMakesTheNameOfARecordInvalidIsRefused) {
    backend = backendFor(server.server.url(), {"key1", testSecret});
    EXPECT_EQ(inspector().openToRead(plainWaiter).code, 0);
    const std::string label(60, 'a');
    const std::string name = label + "." + label + "." + label + "." + label.substr(0, 50) + ".example.org";
    std::vector<Examination> results;
    for (const HostNames& names : {HostNames{"host 1", {}}, HostNames{name, {8443}}}) {
        EXPECT_EQ(inspector().held(names).status().code, errorBadRequest) << names.name;
        EXPECT_EQ(inspector().examine(names, results).code, errorBadRequest) << names.name;
    }
    EXPECT_TRUE(inspector().held({name, {443}}).ok());
}

TEST(RemovalMessage, RequiresTheSetsAndDeletesWholeSetsOrSingleRecords) {
    const DnsBytes other = fromHex("20010db8000000000000000000000002");
    const std::vector<RecordSet> all{{host, typeAaaa, {address}}, {pointer, typePtr, {address, other}}};
    const std::vector<RecordSet> ours{{host, typeAaaa, {address}}, {pointer, typePtr, {other}}};
    const Result<DnsBytes> message = removalMessage(1, "example.org", all, ours);
    ASSERT_TRUE(message.ok());
    const std::string hex = toHex(*message);
    EXPECT_EQ(hex.substr(0, 24), "000128000001000300020000");
    const std::string first = toHex(address);
    const std::string second = toHex(other);
    const auto at = [&hex](const std::string& part) { return hex.find(part); };
    EXPECT_NE(at("001c0001000000000010" + first), std::string::npos);  // prerequisite: class IN, ttl 0
    EXPECT_NE(at("000c0001000000000010" + first), std::string::npos);
    EXPECT_NE(at("000c0001000000000010" + second), std::string::npos);
    EXPECT_NE(at("001c00ff000000000000"), std::string::npos);           // whole set: class ANY
    EXPECT_NE(at("000c00fe000000000010" + second), std::string::npos);  // one record: class NONE
    EXPECT_EQ(at("000c00fe000000000010" + first), std::string::npos);
}

TEST(RemovalMessage, RecordsThatDoNotFitIntoAMessageAreRefused) {
    RecordSet set{host, typeAaaa, std::vector<DnsBytes>(3000, address)};
    EXPECT_EQ(removalMessage(1, "example.org", {set}, {set}).status().code, errorBadRequest);
}

TEST(OwnHttps, HasPortAndHintsOnly) {
    const std::string hint = "20010db8000000000000000000000001";
    const auto parsed = parseOwnHttps(fromHex("0002 00 0003 0002 20fb 0006 0010" + hint));
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->priority, 2U);
    EXPECT_EQ(parsed->target, "");
    EXPECT_EQ(parsed->port, 8443U);
    EXPECT_EQ(recordText("h.example", typeHttps, fromHex("0001 0548 6F737431 00 0006 0010" + hint)),
              "h.example HTTPS 1 host1. ipv6hint=2001:db8::1");
    for (const std::string& foreign :
         {std::string(), std::string("0001"), "0000 00 0006 0010" + hint, std::string("0001 00"),
          "0001 00 0001 0003 026832 0006 0010" + hint, std::string("0001 00 0006 000f 20010db80000000000000000000000"),
          "0001 00 0006 0010" + hint + "00", "0001 00 0003 0001 20 0006 0010" + hint, std::string("0001 3f61"),
          "0001 00 0006 0011" + hint})
        EXPECT_FALSE(parseOwnHttps(fromHex(foreign))) << foreign;
}

TEST(RecordText, MalformedDataIsNotShown) {
    EXPECT_EQ(recordText("h.example", typeAaaa, fromHex("2001")), "h.example AAAA");
    EXPECT_EQ(recordText("h.example", typePtr, fromHex("0561")), "h.example PTR");
    EXPECT_EQ(recordText("h.example", typeHttps, fromHex("00")), "h.example HTTPS");
}

}  // namespace
