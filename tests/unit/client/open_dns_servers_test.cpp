//  The back end dns with several servers in the url, and with the primary server that the zone's SOA record names.
#include "dns/primary.h"
#include "dns/words.h"
#include "open_dns_support.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <netdb.h>
#include <resolv.h>

namespace {

using namespace opentest;
using namespace rdbopen;

//  The simulated resolver.
struct {
    DnsBytes answer;                   // answer to a query for a SOA record; empty: the query fails with error
    int error = TRY_AGAIN;             // value of res_h_errno after such a failure
    std::string asked;                 // zone of the last query
    std::map<std::string, int> ports;  // names of servers on loopback, with the port of each
} resolver;

}  // namespace

extern "C" {
int __real_getaddrinfo(const char*, const char*, const addrinfo*, addrinfo**);
int __wrap_getaddrinfo(const char*, const char*, const addrinfo*, addrinfo**);
int __wrap_getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** found) {
    const auto known = resolver.ports.find(name);
    if (known == resolver.ports.end())
        return __real_getaddrinfo(name, service, hints, found);
    return __real_getaddrinfo("127.0.0.1", std::to_string(known->second).c_str(), hints, found);
}

int __wrap_res_nquery(res_state, const char*, int, int, unsigned char*, int);
int __wrap_res_nquery(res_state state, const char* name, int, int type, unsigned char* answer, int size) {
    EXPECT_EQ(type, 6);
    EXPECT_LE(state->retrans * state->retry, 2);
    resolver.asked = name;
    state->res_h_errno = resolver.error;
    if (resolver.answer.empty())
        return -1;
    std::copy_n(resolver.answer.begin(), std::min(resolver.answer.size(), static_cast<std::size_t>(size)), answer);
    return static_cast<int>(resolver.answer.size());
}
}

namespace {

constexpr const char* request =
    R"({"request":"ws_dnsupdate","seqno":7,"item":{"name":"host1","ipv6s":["2001:db8::1"]}})";
constexpr const char* found = "the primary server of example.org cannot be found: ";

//  A server of the zone. It answers updates with `updateCode`, queries for a SOA record with `soaCode`, and other
//  queries with `queryCode`.
struct Primary {
    std::atomic<unsigned> soaCode{0};
    std::atomic<unsigned> updateCode{0};
    std::atomic<unsigned> queryCode{0};
    std::atomic<int> updates{0};
    std::atomic<int> queries{0};
    DnsServer server{[this](const SeenRequest& seen) {
        if (seen.opcode == opcodeUpdate) {
            ++updates;
            return Reaction{framed(genuineAnswer(seen, updateCode)), Reaction::Then::goOn};
        }
        if (seen.type != typeSoa) {
            ++queries;
            return Reaction{framed(genuineAnswer(seen, queryCode)), Reaction::Then::goOn};
        }
        return Reaction{framed(genuineAnswer(seen, soaCode, {soaOf("example.org")})), Reaction::Then::goOn};
    }};

    std::string place() const { return "127.0.0.1:" + std::to_string(server.port()); }
};

std::unique_ptr<Backend> backendOf(const std::string& servers) {
    return backendFor("dns://" + servers + "/example.org", {"key1", testSecret});
}

Status update(Backend& backend) {
    std::string reply;
    return backend.updates()->apply(request, reply);
}

class DnsServers : public testing::Test {
protected:
    Primary first;
    Primary second;
    const std::unique_ptr<Backend> backend = backendOf(first.place() + "," + second.place());
};

TEST_F(DnsServers, TheFirstServerOfTheUrlServes) {
    EXPECT_EQ(backend->label(), "dns://" + first.place() + "," + second.place() + "/example.org");
    EXPECT_EQ(backend->open(plainWaiter).reason, "");
    EXPECT_EQ(update(*backend).reason, "");
    EXPECT_EQ(first.updates, 1);
    EXPECT_EQ(second.server.connections(), 0);
}

TEST_F(DnsServers, AServerThatIsNotThePrimaryIsSkipped) {
    for (const unsigned code : {rcodeNotAuth, rcodeRefused, rcodeNotImp}) {
        const auto fresh = backendOf(first.place() + "," + second.place());
        const int before = second.updates;
        EXPECT_EQ(fresh->open(plainWaiter).reason, "");
        first.updateCode = code;
        EXPECT_EQ(update(*fresh).reason, "");
        EXPECT_EQ(second.updates, before + 1);
    }
}

TEST_F(DnsServers, AfterAnUpdateTheServerThatHasAcceptedItIsCheckedAndUpdatedFirst) {
    first.updateCode = rcodeNotAuth;
    EXPECT_EQ(backend->open(plainWaiter).reason, "");
    EXPECT_EQ(update(*backend).reason, "");
    EXPECT_EQ(backend->updates()->checkRequest(request).code, errorNotHeld);
    EXPECT_EQ(first.queries, 0);
    EXPECT_GT(second.queries, 0);
    EXPECT_EQ(update(*backend).reason, "");
    EXPECT_EQ(first.updates, 1);
}

TEST_F(DnsServers, TheReasonNamesEachServerAndItsFailure) {
    first.soaCode = rcodeRefused;
    second.soaCode = 2;
    EXPECT_EQ(backend->open(plainWaiter).reason,
              first.place() + ": " + rcodeWords(rcodeRefused) + "; " + second.place() + ": " + rcodeWords(2));
    first.soaCode = second.soaCode = 0;
    EXPECT_EQ(backend->open(plainWaiter).reason, "");
    first.updateCode = rcodeNotAuth;
    second.updateCode = rcodeRefused;
    const Status status = update(*backend);
    EXPECT_EQ(status.code, errorServerRefused);
    EXPECT_EQ(status.reason, first.place() + ": " + rcodeWords(rcodeNotAuth) + "; " + second.place() + ": " +
                                 rcodeWords(rcodeRefused));
}

TEST(DnsServersAway, AnotherServerTakesOverForAServerThatHasEnded) {
    Primary second;
    auto first = std::make_unique<Primary>();
    const auto backend = backendOf(first->place() + "," + second.place());
    EXPECT_EQ(backend->open(plainWaiter).reason, "");
    first.reset();
    EXPECT_EQ(update(*backend).reason, "");
    EXPECT_EQ(second.updates, 1);
    EXPECT_EQ(backend->open(plainWaiter).reason, "");
}

//  Returns the system resolver's answer to a query for a zone's SOA record. `primary` is the first name in this record,
//  in hexadecimal wire format.
DnsBytes soaAnswer(const std::string& primary, const std::string& zone = "example.org") {
    AnswerRecord soa = soaOf(zone);
    const std::size_t old = std::string("ns." + zone).size() + 2;
    const DnsBytes name = fromHex(primary);
    soa.data.erase(soa.data.begin(), soa.data.begin() + static_cast<std::ptrdiff_t>(old));
    soa.data.insert(soa.data.begin(), name.begin(), name.end());
    return plainAnswer(1, 0, 0, {soa});
}

constexpr const char* nameA = "0161 00";
constexpr const char* nameB = "0142 00";

class ZonePrimary : public testing::Test {
protected:
    ZonePrimary() {
        resolver.ports = {{"a", a.server.port()}, {"b", b.server.port()}};
        resolver.answer = soaAnswer(nameA);
        resolver.error = TRY_AGAIN;
    }
    ~ZonePrimary() override { resolver = {}; }

    Primary a;
    Primary b;
    const std::unique_ptr<Backend> backend = backendOf("");
};

TEST_F(ZonePrimary, IsTheServerOfAUrlWithoutServers) {
    EXPECT_EQ(backend->label(), "dns:///example.org");
    EXPECT_EQ(backend->open(plainWaiter).reason, "");
    EXPECT_EQ(resolver.asked, "example.org");
    EXPECT_EQ(update(*backend).reason, "");
    EXPECT_EQ(a.updates, 1);
}

TEST_F(ZonePrimary, IsFoundAgainAtEachOpenAndUpdate) {
    EXPECT_EQ(backend->open(plainWaiter).reason, "");
    resolver.answer = soaAnswer(nameB);
    EXPECT_EQ(update(*backend).reason, "");
    EXPECT_EQ(b.updates, 1);
    resolver.answer = soaAnswer(nameA);
    const int before = a.server.connections();
    EXPECT_EQ(backend->open(plainWaiter).reason, "");
    EXPECT_EQ(a.server.connections(), before + 1);
}

TEST_F(ZonePrimary, ThatWasFoundLastIsUsedWhileTheResolverFails) {
    EXPECT_EQ(backend->open(plainWaiter).reason, "");
    resolver.answer.clear();
    EXPECT_EQ(update(*backend).reason, "");
    EXPECT_EQ(backend->open(plainWaiter).reason, "");
}

TEST_F(ZonePrimary, IsNamedInTheReasonOfAFailure) {
    a.soaCode = 2;
    EXPECT_EQ(backend->open(plainWaiter).reason, "a:53: " + rcodeWords(2));
    a.soaCode = 0;
    EXPECT_EQ(backend->open(plainWaiter).reason, "");
    a.updateCode = rcodeNotAuth;
    const Status status = update(*backend);
    EXPECT_EQ(status.code, errorServerRefused);
    EXPECT_EQ(status.reason, "a:53: " + rcodeWords(rcodeNotAuth));
}

//  A check does not query the resolver, because a check must be interruptible and a query is not.
TEST_F(ZonePrimary, ThatHasLostTheZoneEndsTheConnectionAtACheck) {
    EXPECT_EQ(backend->open(plainWaiter).reason, "");
    a.queryCode = rcodeRefused;
    const Status status = backend->updates()->checkRequest(request);
    EXPECT_EQ(status.code, errorBackendFailed);
    EXPECT_EQ(status.reason, "a:53: " + rcodeWords(rcodeRefused));
}

TEST_F(ZonePrimary, AFailureOfTheResolverIsReported) {
    resolver.answer.clear();
    const std::pair<int, const char*> rows[] = {{HOST_NOT_FOUND, "the resolver does not know this name"},
                                                {NO_DATA, "this name is not a zone"},
                                                {TRY_AGAIN, "the resolver does not answer or has failed"},
                                                {NO_RECOVERY, "the resolver does not answer or has failed"}};
    for (const auto& [error, reason] : rows) {
        resolver.error = error;
        const Status status = backend->open(plainWaiter);
        EXPECT_EQ(status.code, errorBackendFailed);
        EXPECT_EQ(status.reason, std::string(found) + reason);
    }
}

TEST_F(ZonePrimary, AnAnswerLongerThanTheBufferIsCut) {
    resolver.answer.resize(10000);
    EXPECT_EQ(backend->open(plainWaiter).reason, "");
}

TEST(ZonePrimaryAnswer, HasTheNameInLowerCaseWithoutItsLastDot) {
    EXPECT_EQ(*primaryOf(soaAnswer("024e53 074578616d706c65 00"), "example.org"), "ns.example");
    EXPECT_EQ(*primaryOf(soaAnswer(nameA, "EXAMPLE.org"), "example.org"), "a");
}

TEST(ZonePrimaryAnswer, WithoutAUsableRecordOfTheZoneIsRefused) {
    const std::pair<DnsBytes, const char*> rows[] = {
        {{}, "the answer is malformed"},
        {plainAnswer(1, 0, 0), "this name is not a zone"},
        {soaAnswer(nameA, "other.org"), "this name is not a zone"},
        {plainAnswer(1, 0, 0, {{"example.org", typeAaaa, DnsBytes(16)}}), "this name is not a zone"},
        {soaAnswer("00"), "the SOA record of the zone names no host"},
        {soaAnswer("01 20 00"), "the SOA record of the zone names no host"},
        {soaAnswer("03 612e62 00"), "the SOA record of the zone names no host"},
        {soaAnswer("03 610062 00"), "the SOA record of the zone names no host"},
    };
    for (const auto& [answer, reason] : rows)
        EXPECT_EQ(primaryOf(answer, "example.org").status().reason, std::string(found) + reason) << toHex(answer);
}

TEST(ZonePrimaryAnswer, CutAtAnyByteIsRefused) {
    const DnsBytes whole = soaAnswer(nameA);
    for (std::size_t size = 0; size < whole.size(); ++size)
        EXPECT_FALSE(primaryOf({whole.data(), size}, "example.org").ok()) << size;
}

}  // namespace
