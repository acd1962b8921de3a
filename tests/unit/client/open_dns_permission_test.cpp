//  How the back end dns finds out whether the key may change the records of a host. The test determines the server's
//  answers.
#include "dns/words.h"
#include "open_dns_support.h"

#include <gtest/gtest.h>
#include <set>

namespace {

using namespace opentest;
using namespace rdbopen;

const std::string reverse = "8.b.d.0.1.0.0.2.ip6.arpa";

//  A server that refuses updates with record types in `refusedTypes`, and answers all other updates with `code`.
class AskedServer {
public:
    std::atomic<unsigned> code{rcodeYxRrset};
    std::atomic<bool> isSigned{true};
    std::atomic<bool> cuts{false};
    std::set<unsigned> refusedTypes;
    std::vector<DnsBytes> updates;

private:
    //  Returns the code of the answer to an update. Each record of its update section must be a deletion (class NONE).
    unsigned codeFor(const SeenRequest& seen) {
        const Packet packet = std::move(*parseMessage(seen.wire));
        const ldns_rr_list* const records = ldns_pkt_authority(packet.get());
        EXPECT_GT(ldns_rr_list_rr_count(records), 0U);
        for (std::size_t i = 0; i < ldns_rr_list_rr_count(records); ++i) {
            const ldns_rr* const record = ldns_rr_list_rr(records, i);
            EXPECT_EQ(static_cast<int>(ldns_rr_get_class(record)), 254);
            if (refusedTypes.contains(static_cast<unsigned>(ldns_rr_get_type(record))))
                return rcodeRefused;
        }
        return code;
    }
    Reaction react(const SeenRequest& seen) {
        if (seen.opcode != opcodeUpdate)
            return {framed(genuineAnswer(seen, 0, {soaOf("example.org")})), Reaction::Then::goOn};
        updates.push_back(seen.wire);
        if (cuts)
            return {{}, Reaction::Then::end};
        const unsigned answer = codeFor(seen);
        return {framed(isSigned ? genuineAnswer(seen, answer) : plainAnswer(seen.id, seen.opcode, answer)),
                Reaction::Then::goOn};
    }

public:
    DnsServer server{[this](const SeenRequest& seen) { return react(seen); }};
};

class DnsPermission : public testing::Test {
protected:
    //  Returns the results as "WHAT" or "WHAT: first 7 characters of the reason".
    std::vector<std::string> examine(const std::string& rest = "/example.org") {
        backend = backendFor(server.server.url(rest), {"key1", testSecret});
        EXPECT_EQ(backend->inspector()->openToRead(plainWaiter).reason, "");
        std::vector<Examination> results;
        status = backend->inspector()->examine({"host1", {443, 8443}}, results);
        std::vector<std::string> found;
        for (const Examination& one : results)
            found.push_back(one.what + (one.status.ok() ? "" : ": " + one.status.reason.substr(0, 7)));
        return found;
    }

    AskedServer server;
    std::unique_ptr<Backend> backend;
    Status status;
};

using Found = std::vector<std::string>;

const std::string all = "update the records of host1.example.org";

TEST_F(DnsPermission, OneUpdateThatCannotBeCarriedOutAsksForAllRecords) {
    EXPECT_EQ(examine(), (Found{all}));
    ASSERT_EQ(server.updates.size(), 1U);
    const std::string hex = toHex(server.updates[0]);
    EXPECT_EQ(hex.substr(8, 16), "0001000100030001");  // zone, prerequisite, 3 records, TSIG
    EXPECT_NE(hex.find("0000060001c00c000600fe000000000000"), std::string::npos);  // no SOA record at the zone's name
}

TEST_F(DnsPermission, SuccessOfAServerWithoutPrerequisitesMeansPermission) {
    server.code = rcodeNoError;
    EXPECT_EQ(examine(), (Found{all}));
}

TEST_F(DnsPermission, ARefusedTypeIsNamed) {
    server.refusedTypes = {typeHttps};
    EXPECT_EQ(examine(),
              (Found{all + ": REFUSED", "update host1.example.org AAAA", "update host1.example.org HTTPS: REFUSED",
                     "update _8443._https.host1.example.org HTTPS: REFUSED"}));
}

TEST_F(DnsPermission, IfEverythingIsRefusedOneLineIsEnough) {
    server.code = 9;
    EXPECT_EQ(examine(), (Found{all + ": NOTAUTH"}));
}

TEST_F(DnsPermission, EachReverseZoneIsAsked) {
    server.refusedTypes = {typePtr};
    EXPECT_EQ(examine("/example.org?ptr=" + reverse + ",1.0.0.2.ip6.arpa"),
              (Found{all, "update PTR records in " + reverse + ": REFUSED",
                     "update PTR records in 1.0.0.2.ip6.arpa: REFUSED"}));
    EXPECT_TRUE(status.ok());
}

TEST_F(DnsPermission, AnUnsignedAnswerAndACutConnectionAreFailures) {
    server.isSigned = false;
    EXPECT_EQ(examine(), Found());
    EXPECT_EQ(status.code, errorBackendFailed);
    server.cuts = true;
    EXPECT_EQ(examine(), Found());
    EXPECT_EQ(status.code, errorBackendFailed);
}

}  // namespace
