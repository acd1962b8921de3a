//  The back end dns with a server on loopback that follows the standards and answers according to a script.
#include "dns/backend.h"

#include "dns/words.h"
#include "open_dns_support.h"

#include <gtest/gtest.h>

namespace {

std::atomic<std::int64_t> drivenClock{0};  // s; if 0, the real monotonic clock is used

}  // namespace

extern "C" {
int __real_clock_gettime(clockid_t, timespec*);
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    const int result = __real_clock_gettime(clock, now);
    if (clock == CLOCK_MONOTONIC && drivenClock != 0)
        *now = {drivenClock, 0};
    return result;
}
}

namespace {

using namespace opentest;
using namespace rdbopen;

constexpr const char* request = R"({"request":"ws_dnsupdate","seqno":7,"item":{"name":"host1",)"
                                R"("ipv6s":["2001:db8::1","fd00::1"],"httpsports":[443,8443]}})";

std::unique_ptr<Backend> backendOf(const std::string& url, const std::string& password = testSecret,
                                   const std::string& user = "key1") {
    BackendResult backend = makeBackend(url, {user, password});
    EXPECT_TRUE(backend.ok()) << backend.status().reason;
    return backend.ok() ? std::move(*backend) : nullptr;
}

Reaction answered(const SeenRequest& seen, unsigned rcode, const std::vector<AnswerRecord>& records = {}) {
    return {framed(genuineAnswer(seen, rcode, records)), Reaction::Then::goOn};
}

//  A server of the zone. The test determines whether it accepts or refuses an update.
struct Zone {
    std::atomic<unsigned> updateCode{0};
    std::mutex mutex;
    std::vector<AnswerRecord> records;
    std::string alias;            // a name with a CNAME; do not change it during a request
    std::atomic<int> seconds{0};  // duration of each request on the controlled clock

    DnsServer::Script script() {
        return [this](const SeenRequest& seen) {
            drivenClock += seconds;
            if (seen.opcode == LDNS_PACKET_UPDATE)
                return answered(seen, excludesAlias(seen) ? unsigned{rcodeYxRrset} : unsigned{updateCode});
            if (seen.type == 6)
                return answered(seen, 0, {soaOf("example.org")});
            const std::lock_guard lock(mutex);
            std::vector<AnswerRecord> found;
            for (const AnswerRecord& record : records)
                if (record.owner == seen.owner && (record.type == seen.type || record.type == typeCname))
                    found.push_back(record);
            return answered(seen, found.empty() ? 3 : 0, found);
        };
    }

    //  Returns whether the update has a prerequisite that excludes a CNAME at the name alias.
    bool excludesAlias(const SeenRequest& seen) const {
        const Packet packet = std::move(*parseMessage(seen.wire));
        const std::unique_ptr<ldns_rdf, void (*)(ldns_rdf*)> name(ldns_dname_new_frm_str((alias + ".").c_str()),
                                                                  ldns_rdf_deep_free);
        const ldns_rr_list* const prerequisites = ldns_pkt_answer(packet.get());
        for (std::size_t i = 0; i < ldns_rr_list_rr_count(prerequisites); ++i) {
            const ldns_rr* const record = ldns_rr_list_rr(prerequisites, i);
            if (ldns_rr_get_class(record) == LDNS_RR_CLASS_NONE && ldns_rr_get_type(record) == LDNS_RR_TYPE_CNAME &&
                ldns_dname_compare(ldns_rr_owner(record), name.get()) == 0)
                return true;
        }
        return false;
    }
};

std::vector<AnswerRecord> published() {
    const DnsBytes one = fromHex("20010db8000000000000000000000001");
    return {{"host1.example.org", 28, one},
            {"host1.example.org", 65, fromHex("0001 00 0006 0010 20010db8000000000000000000000001")},
            {"_8443._https.host1.example.org", 65,
             fromHex("0001 05686f737431076578616d706c65036f726700 0006 0010 20010db8000000000000000000000001")}};
}

TEST(DnsBackend, ItsNameContainsNeitherUserNorPassword) {
    EXPECT_EQ(backendOf("dns://[2001:db8::53]/Example.org?ttl=5")->label(), "dns://[2001:db8::53]:53/example.org");
}

TEST(DnsBackend, ServesOnlyMessages) {
    const auto backend = backendOf("dns://s/z");
    EXPECT_TRUE(backend->updates() != nullptr);
    EXPECT_FALSE(backend->tags() != nullptr);
}

TEST(DnsBackend, ChecksAsOftenAsTheUrlRequests) {
    EXPECT_EQ(backendOf("dns://s/z")->checkInterval(), std::chrono::seconds(60));
    EXPECT_EQ(backendOf("dns://s/z?check=0")->checkInterval(), std::chrono::seconds(0));
}

TEST(DnsBackend, AUserThatIsNotAKeyNameIsRefused) {
    for (const char* const user : {"", "a b", "a..b", "."}) {
        const BackendResult backend = makeBackend("dns://s/z", {user, testSecret});
        EXPECT_EQ(backend.status().code, errorBadUrl) << user;
        EXPECT_EQ(backend.status().reason, "the user is not the name of a key");
    }
}

TEST(DnsBackend, OpensWithASignedQuestionForTheZone) {
    Zone zone;
    DnsServer server(zone.script());
    const auto backend = backendOf(server.url(), testSecret, "KEY1.");
    EXPECT_EQ(backend->open(plainWaiter).reason, "");
    const SeenRequest seen = server.requests().take();
    EXPECT_EQ(seen.owner, "example.org");
    EXPECT_EQ(seen.type, 6U);
    EXPECT_EQ(seen.mac.size(), 34U);
}

TEST(DnsBackend, OpenFailsWithTheServersErrorText) {
    for (const unsigned code : {2U, rcodeRefused, rcodeNotAuth}) {
        DnsServer server([code](const SeenRequest& seen) { return answered(seen, code); });
        const Status outcome = backendOf(server.url())->open(plainWaiter);
        EXPECT_EQ(outcome.code, errorBackendFailed);
        EXPECT_EQ(outcome.reason, rcodeWords(code));
    }
}

TEST(DnsBackend, OpenFailsWhenTheServerIsNotAuthoritative) {
    DnsServer server([](const SeenRequest& seen) {
        DnsBytes message = plainAnswer(seen.id, 0, 0, {soaOf("example.org")});
        message[2] &= 0xfb;
        Signing signing;
        signing.time = seen.time;
        return Reaction{framed(signMessage(message, seen.mac, signing)), Reaction::Then::goOn};
    });
    EXPECT_EQ(backendOf(server.url())->open(plainWaiter).reason,
              "the server is not authoritative for a zone example.org");
}

TEST(DnsBackend, OpenFailsWhenTheNameIsNotAZone) {
    DnsServer server([](const SeenRequest& seen) { return answered(seen, 0, {soaOf("org")}); });
    EXPECT_EQ(backendOf(server.url())->open(plainWaiter).reason,
              "the server is not authoritative for a zone example.org");
}

TEST(DnsBackend, OpenFailsWithoutAServer) {
    std::string url;
    {
        DnsServer server([](const SeenRequest&) { return Reaction{}; });
        url = server.url();
    }
    EXPECT_EQ(backendOf(url)->open(plainWaiter).reason, "cannot be reached: " + errorText(ECONNREFUSED));
}

TEST(DnsBackend, OpenFailsWhenThePasswordIsNotABase64Key) {
    EXPECT_EQ(backendOf("dns://127.0.0.1:1/z", "se*cret")->open(plainWaiter).reason,
              "the password is not the secret of a key in base64");
}

TEST(DnsBackend, TheSecretIsReadFromItsFileAgainForEachConnection) {
    const Folder folder;
    writeText(folder.file("key"), std::string(testSecret) + "\n");
    Zone zone;
    DnsServer server(zone.script());
    const auto backend = backendOf(server.url(), "file:" + folder.file("key"));
    ASSERT_EQ(backend->open(plainWaiter).reason, "");
    writeText(folder.file("key"), "???");
    std::string reply;
    EXPECT_EQ(backend->updates()->apply(request, reply).reason, "the password is not the secret of a key in base64");
    EXPECT_EQ(backend->updates()->checkRequest(request).reason, "the password is not the secret of a key in base64");
}

//  The server does not report which of the update's two names is the alias. So the back end sends one more update for
//  each name, which has only a prerequisite.
TEST(DnsBackend, AnAliasThatNoLongerExistsIsReportedWithTheServersErrorText) {
    std::atomic<int> updates{0};
    DnsServer server([&updates](const SeenRequest& seen) {
        if (seen.opcode == LDNS_PACKET_UPDATE)
            return answered(seen, updates++ == 0 ? unsigned{rcodeYxRrset} : 0);
        return answered(seen, 0, {soaOf("example.org")});
    });
    const auto backend = backendOf(server.url());
    ASSERT_EQ(backend->open(plainWaiter).reason, "");
    std::string reply;
    const Status outcome = backend->updates()->apply(request, reply);
    EXPECT_EQ(outcome.code, errorServerRefused);
    EXPECT_EQ(outcome.reason, "YXRRSET: a record set exists that must not");
    EXPECT_EQ(updates, 3);
}

//  After start, the back end is open, and server.requests() no longer contains the query for the zone.
class OpenDnsBackend : public testing::Test {
protected:
    void start(const std::string& options = "?skip=ula") {
        backend = backendOf(server.url("/example.org" + options));
        ASSERT_EQ(backend->open(plainWaiter).reason, "");
        server.requests().take();
    }
    Status send(const std::string& text) { return backend->updates()->apply(text, reply); }

    Zone zone;
    DnsServer server{zone.script()};
    std::unique_ptr<Backend> backend;
    std::string reply;
};

TEST_F(OpenDnsBackend, AMessageIsOneUpdate) {
    start();
    EXPECT_EQ(send(request).code, errorNone);
    EXPECT_EQ(reply, R"({"seqno":7,"code":0,"message":"ok"})");
    const SeenRequest seen = server.requests().take();
    const Packet packet = std::move(*parseMessage(seen.wire));
    EXPECT_EQ(seen.opcode, unsigned{LDNS_PACKET_UPDATE});
    EXPECT_EQ(ldns_pkt_ancount(packet.get()), 2U);
    EXPECT_EQ(ldns_pkt_nscount(packet.get()), 6U);
    EXPECT_EQ(server.requests().count(), 0U);
    EXPECT_EQ(server.connections(), 2);
}

TEST_F(OpenDnsBackend, ARefusalIsReportedAsTextAndTheUpdateCanBeMadeAgain) {
    start();
    for (unsigned code = 1; code < 12; ++code) {
        zone.updateCode = code;
        const Status outcome = send(request);
        EXPECT_EQ(outcome.code, errorServerRefused);
        EXPECT_NE(reply.find("\"code\":1017,\"message\":\"" + outcome.reason + "\""), std::string::npos) << reply;
    }
    zone.updateCode = 0;
    EXPECT_EQ(send(request).code, errorNone);
}

TEST_F(OpenDnsBackend, ARefusalBecauseOfAnAliasReportsTheNameThatHasIt) {
    for (const std::string alias : {"host1.example.org", "_8443._https.host1.example.org"}) {
        zone.alias = alias;
        start();
        const Status outcome = send(request);
        EXPECT_EQ(outcome.code, errorServerRefused);
        EXPECT_EQ(outcome.reason, "a CNAME stands at " + alias + " and keeps its other records away");
        EXPECT_EQ(reply, R"({"seqno":7,"code":1017,"message":")" + outcome.reason + "\"}");
        while (server.requests().count() > 0)
            server.requests().take();
    }
}

TEST_F(OpenDnsBackend, ANameOutsideTheZoneIsNeverSent) {
    start();
    const Status outcome = send(R"({"request":"ws_dnsupdate","seqno":1,"item":{"name":"host1.example.com"}})");
    EXPECT_EQ(outcome.code, errorBadRequest);
    EXPECT_EQ(reply,
              R"({"seqno":1,"code":1013,"message":"the zone example.org does not hold the name host1.example.com"})");
    EXPECT_EQ(outcome.reason, "the zone example.org does not hold the name host1.example.com");
    EXPECT_EQ(server.connections(), 1);
}

TEST_F(OpenDnsBackend, ANameTooLongForItsRecordsIsABadRequest) {
    start();
    const std::string label(60, 'a');
    const std::string name = label + "." + label + "." + label + "." + label.substr(0, 50) + ".example.org";
    const auto text = [&name](const char* ports) {
        return R"({"request":"ws_dnsupdate","seqno":1,"item":{"name":")" + name + R"(","httpsports":[)" + ports + "]}}";
    };
    EXPECT_EQ(send(text("443")).code, errorNone);
    EXPECT_EQ(send(text("8443")).code, errorBadRequest);
    EXPECT_NE(reply.find("is too long for its records"), std::string::npos);
}

TEST_F(OpenDnsBackend, ARequestThatDoesNotFitOneMessageIsABadRequest) {
    start();
    const auto text = [](int count) {
        std::string list;
        for (int i = 0; i < count; ++i)
            list += (i == 0 ? "\"" : ",\"") + std::string("2001:db8::") + std::to_string(i) + "\"";
        return R"({"request":"ws_dnsupdate","seqno":1,"item":{"name":"host1","ipv6s":[)" + list + "]}}";
    };
    EXPECT_EQ(send(text(2300)).code, errorNone);
    EXPECT_EQ(send(text(2400)).code, errorBadRequest);
    EXPECT_EQ(reply, R"({"seqno":1,"code":1013,"message":"the records do not fit into one update of 65535 bytes"})");
}

TEST_F(OpenDnsBackend, AMalformedRequestIsRefused) {
    start();
    EXPECT_EQ(send("{").code, errorBadRequest);
    EXPECT_EQ(reply, R"({"seqno":null,"code":1013,"message":"the request is not a JSON object"})");
    EXPECT_EQ(backend->updates()->checkRequest("{").code, errorNone);
}

TEST_F(OpenDnsBackend, ARequestThatIsNotExecutedIsAnsweredWithItsNumber) {
    EXPECT_EQ(backendOf("dns://s/z")->updates()->refusal(request, errorNotConnected),
              R"({"seqno":7,"code":1005,"message":"the server is not connected"})");
}

TEST_F(OpenDnsBackend, ACheckQueriesEachRecordSetOnOneConnection) {
    zone.records = published();
    start();
    EXPECT_EQ(backend->updates()->checkRequest(request).code, errorNone);
    for (const char* const owner : {"host1.example.org", "_8443._https.host1.example.org", "host1.example.org"})
        EXPECT_EQ(server.requests().take().owner, owner);
    EXPECT_EQ(server.connections(), 2);
}

TEST_F(OpenDnsBackend, ACheckDetectsEachChangedAndEachMissingRecord) {
    start();
    const auto checkWith = [this](const std::vector<AnswerRecord>& records) {
        {
            const std::lock_guard lock(zone.mutex);
            zone.records = records;
        }
        return backend->updates()->checkRequest(request).code;
    };
    for (std::size_t i = 0; i < published().size(); ++i) {
        std::vector<AnswerRecord> records = published();
        records[i].data.back() ^= 1;
        EXPECT_EQ(checkWith(records), errorNotHeld) << i;
        records.erase(records.begin() + static_cast<std::ptrdiff_t>(i));
        EXPECT_EQ(checkWith(records), errorNotHeld) << i;
    }
    EXPECT_EQ(checkWith(published()), errorNone);
}

TEST_F(OpenDnsBackend, ACheckReportsAnAliasAtTheName) {
    zone.records = {{"host1.example.org", typeCname, fromHex("00")}};
    zone.alias = "host1.example.org";
    start();
    const Status outcome = backend->updates()->checkRequest(request);
    EXPECT_EQ(outcome.code, errorServerRefused);
    EXPECT_EQ(outcome.reason, "a CNAME stands at host1.example.org and keeps its other records away");
}

//  The server answers with the alias of a wildcard, and the zone itself has no alias at the name. So an update can add
//  the missing records.
TEST_F(OpenDnsBackend, ACheckTreatsAWildcardsAliasAsMissingRecords) {
    zone.records = {{"host1.example.org", typeCname, fromHex("00")}};
    start();
    for (const unsigned code : {0U, 5U}) {  // 5: answer of a server that does not support prerequisites
        zone.updateCode = code;
        EXPECT_EQ(backend->updates()->checkRequest(request).code, errorNotHeld);
    }
}

constexpr const char* hidden = R"({"request":"ws_dnsupdate","seqno":7,"item":{"name":"host1","ipv6s":["fd00::1"]}})";

//  The server answers with records of a wildcard, and the zone itself has no record at the name.
TEST_F(OpenDnsBackend, ACheckIgnoresAWildcardsRecords) {
    zone.records = {{"host1.example.org", 28, DnsBytes(16)}};
    start();
    ASSERT_EQ(backend->updates()->checkRequest(hidden).code, errorNone);
    EXPECT_EQ(server.requests().take().type, unsigned{typeHttps});
    EXPECT_EQ(server.requests().take().type, unsigned{typeAaaa});
    const Packet condition = std::move(*parseMessage(server.requests().take().wire));
    EXPECT_EQ(ldns_pkt_ancount(condition.get()), 1U);
    EXPECT_EQ(ldns_pkt_nscount(condition.get()), 0U);
}

TEST_F(OpenDnsBackend, ACheckDetectsRecordsThatTheZoneMustNotHave) {
    zone.records = {{"host1.example.org", 28, DnsBytes(16)}};
    start();
    for (const unsigned code : {7U, 5U}) {  // 7: YXRRSET; 5: the server does not support prerequisites
        zone.updateCode = code;
        EXPECT_EQ(backend->updates()->checkRequest(hidden).code, errorNotHeld);
    }
}

//  The option skip=ula excludes the only address, so the server must hold none of the 42 record sets. The check sends
//  one query for each set.
std::string requestWithFortyPorts() {
    std::string ports;
    for (int port = 1; port <= 40; ++port)
        ports += (port == 1 ? "" : ",") + std::to_string(port);
    return R"({"request":"ws_dnsupdate","seqno":7,"item":{"name":"host1","ipv6s":["fd00::1"],"httpsports":[)" + ports +
           "]}}";
}

TEST_F(OpenDnsBackend, ACheckHasTenSecondsForAllItsQueries) {
    start();
    const std::string text = requestWithFortyPorts();
    EXPECT_EQ(backend->updates()->checkRequest(text).code, errorNone);
    EXPECT_EQ(server.requests().count(), 42U);
    drivenClock = 1000;
    zone.seconds = 4;
    const Status outcome = backend->updates()->checkRequest(text);
    drivenClock = 0;
    EXPECT_EQ(outcome.code, errorBackendFailed);
    EXPECT_EQ(outcome.reason, "the server does not answer in time");
    EXPECT_EQ(server.requests().count(), 42U + 3);
}

TEST_F(OpenDnsBackend, AnAliasAtANameWithoutAddressesIsNoFailure) {
    zone.records = {{"host1.example.org", typeCname, fromHex("00")}};
    start();
    EXPECT_EQ(backend->updates()->checkRequest(hidden).code, errorNone);
}

TEST_F(OpenDnsBackend, WithoutAServerUpdateAndCheckFail) {
    std::unique_ptr<Backend> lone;
    {
        DnsServer other(zone.script());
        lone = backendOf(other.url());
        ASSERT_EQ(lone->open(plainWaiter).code, errorNone);
    }
    EXPECT_EQ(lone->updates()->apply(request, reply).code, errorBackendFailed);
    EXPECT_EQ(lone->updates()->checkRequest(request).code, errorBackendFailed);
}

}  // namespace
