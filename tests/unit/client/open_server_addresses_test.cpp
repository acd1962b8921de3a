//  The addresses of a server's name: their selection and order, the time limits, and the reported reason. No connection
//  is made, and the test controls the clock.
#include "net/server_addresses.h"

#include "open_support.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>

namespace {

std::vector<std::string> known;  // the addresses to which every name resolves, except IPv4 literals
int lookUpError = 0;
std::int64_t clockSeconds = 1000;
int lookUpSeconds = 0;

}  // namespace

extern "C" {
int __real_getaddrinfo(const char*, const char*, const addrinfo*, addrinfo**);
int __wrap_getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** first) {
    clockSeconds += lookUpSeconds;
    if (lookUpError != 0) {
        errno = ENOMEM;
        return lookUpError;
    }
    *first = nullptr;
    in_addr parsed{};
    if (inet_pton(AF_INET, name, &parsed) == 1)
        return __real_getaddrinfo(name, service, hints, first);
    for (const std::string& address : known) {
        __real_getaddrinfo(address.c_str(), service, hints, first);
        first = &(*first)->ai_next;
    }
    return 0;
}
int __wrap_clock_gettime(clockid_t, timespec* now) {
    *now = {clockSeconds, 0};
    return 0;
}
}

namespace {

using namespace opentest;
using namespace rdbopen;
using Texts = std::vector<std::string>;
using std::chrono::seconds;

std::string textOf(const ServerAddress& address) {
    sockaddr_in ipv4;
    std::memcpy(&ipv4, &address.bytes, sizeof ipv4);
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &ipv4.sin_addr, text, sizeof text);
}

class EndingWaiter : public PlainWaiter {
public:
    bool cancelled() const noexcept override { return ended; }
    bool ended = false;
};

constexpr seconds limit{10};

class ServerAddresses_ : public testing::Test {
protected:
    ServerAddresses_() {
        known = {"192.0.2.1", "192.0.2.2", "192.0.2.3"};
        lookUpError = lookUpSeconds = 0;
        lookUp();
    }
    std::string lookUp() {
        until = monotonicNow() + limit;
        return addresses.lookUp({{"name", 53}}, until).reason;
    }
    std::string lookUpServers(const std::vector<Server>& servers) {
        until = monotonicNow() + limit;
        return addresses.lookUp(servers, until).reason;
    }
    Status tryEach() {
        tried.clear();
        return addresses.tryEach(waiter, until, connect, attempt);
    }
    Status tryOthers(Status outcome) {
        tried.clear();
        return addresses.tryOthers(std::move(outcome), waiter, until, connect, attempt);
    }
    static Status wrongServer(std::string reason) { return {errorServerRefused, std::move(reason), true}; }

    ServerAddresses addresses;
    EndingWaiter waiter;
    std::chrono::milliseconds until{};
    Texts tried;
    std::map<std::string, std::string> unreachable;  // reason for each unreachable address
    std::map<std::string, Status> outcomes;          // result of the attempt by address; missing: success
    int spent = 0;                                   // duration of each connection, s
    std::vector<std::int64_t> shares;                // time limit of each attempt, s

    const ServerAddresses::Connect connect = [this](const ServerAddress& address, std::chrono::milliseconds) {
        tried.push_back(textOf(address));
        clockSeconds += spent;
        const std::string reason = unreachable[tried.back()];
        return reason.empty() ? Status{} : backendFailed(reason);
    };
    const ServerAddresses::Attempt attempt = [this](std::chrono::milliseconds share) {
        shares.push_back(std::chrono::duration_cast<seconds>(share - monotonicNow()).count() + spent);
        return outcomes[tried.back()];
    };
};

using Addresses = ServerAddresses_;

TEST_F(Addresses, TheFirstRightServerEndsTheSearch) {
    EXPECT_EQ(tryEach().code, errorNone);
    EXPECT_EQ(tried, (Texts{"192.0.2.1"}));
}

TEST_F(Addresses, AfterAnUnreachableOrWrongServerTheNextAddressIsTried) {
    unreachable["192.0.2.1"] = "down";
    outcomes["192.0.2.2"] = wrongServer("not me");
    EXPECT_EQ(tryEach().code, errorNone);
    EXPECT_EQ(tried, known);
}

TEST_F(Addresses, OtherFailuresEndTheSearch) {
    for (const Status& failure : {backendFailed("lost"), serverRefused("full"), Status{errorNotHeld, {}}}) {
        outcomes["192.0.2.1"] = failure;
        EXPECT_EQ(tryEach().code, failure.code);
        EXPECT_EQ(tried.size(), 1U);
    }
}

TEST_F(Addresses, IfAllFailTheLastAnswerIsReported) {
    outcomes["192.0.2.1"] = wrongServer("one");
    outcomes["192.0.2.2"] = wrongServer("two");
    unreachable["192.0.2.3"] = "down";
    const Status outcome = tryEach();
    EXPECT_EQ(outcome.reason, "two");
    EXPECT_EQ(outcome.code, errorServerRefused);
    EXPECT_TRUE(outcome.failover);
    EXPECT_EQ(tried, known);
}

TEST_F(Addresses, IfNoAddressCanBeReachedTheLastReasonIsReported) {
    unreachable = {{"192.0.2.1", "one"}, {"192.0.2.2", "two"}, {"192.0.2.3", "three"}};
    const Status outcome = tryEach();
    EXPECT_EQ(outcome.reason, "three");
    EXPECT_EQ(outcome.code, errorBackendFailed);
}

TEST_F(Addresses, TheLastRightAddressIsTriedFirstWhileTheNameResolvesToIt) {
    outcomes = {{"192.0.2.1", wrongServer("one")}, {"192.0.2.2", wrongServer("two")}};
    static_cast<void>(tryEach());
    lookUp();
    static_cast<void>(tryEach());
    EXPECT_EQ(tried, (Texts{"192.0.2.3"}));
    known = {"192.0.2.2", "192.0.2.1"};
    lookUp();
    static_cast<void>(tryEach());
    EXPECT_EQ(tried, known);
}

TEST_F(Addresses, AnAddressThatFailedIsNotTriedFirst) {
    unreachable["192.0.2.1"] = "down";
    outcomes["192.0.2.2"] = backendFailed("lost");
    static_cast<void>(tryEach());
    lookUp();
    static_cast<void>(tryEach());
    EXPECT_EQ(tried, (Texts{"192.0.2.1", "192.0.2.2"}));
}

TEST_F(Addresses, EachAddressHasAnEqualShareOfTheRemainingTime) {
    spent = 4;
    outcomes = {{"192.0.2.1", wrongServer("one")}, {"192.0.2.2", wrongServer("two")}};
    until = monotonicNow() + seconds(30);
    static_cast<void>(tryEach());
    EXPECT_EQ(shares, (std::vector<std::int64_t>{10, 13, 22}));
}

TEST_F(Addresses, ACancelledWaiterTriesNoFurtherAddress) {
    outcomes["192.0.2.1"] = wrongServer("one");
    const ServerAddresses::Attempt close = [this](std::chrono::milliseconds) {
        waiter.ended = true;
        return wrongServer("one");
    };
    EXPECT_EQ(addresses.tryEach(waiter, until, connect, close).reason, "one");
    EXPECT_EQ(tried, (Texts{"192.0.2.1"}));
    const Status status = tryEach();
    EXPECT_EQ(status.code, errorBackendFailed);
    EXPECT_EQ(status.reason, "the handle was closed, or a call waits or has timed out");
    EXPECT_EQ(tried, Texts());
}

TEST_F(Addresses, TheOtherAddressesAreAllExceptTheLastTried) {
    unreachable["192.0.2.1"] = "down";
    static_cast<void>(tryEach());
    unreachable.clear();
    outcomes["192.0.2.1"] = wrongServer("one");
    EXPECT_EQ(tryOthers(wrongServer("two")).code, errorNone);
    EXPECT_EQ(tried, (Texts{"192.0.2.1", "192.0.2.3"}));
}

TEST_F(Addresses, IfTheOthersCannotBeReachedTheFirstAnswerIsReported) {
    static_cast<void>(tryEach());
    unreachable = {{"192.0.2.2", "two"}, {"192.0.2.3", "three"}};
    EXPECT_EQ(tryOthers(wrongServer("one")).reason, "one");
}

TEST_F(Addresses, WithOneAddressThereAreNoOthers) {
    EXPECT_TRUE(addresses.hasOthers());
    known = {"192.0.2.1"};
    lookUp();
    EXPECT_FALSE(addresses.hasOthers());
}

TEST_F(Addresses, AllAddressesOfAServerPrecedeThoseOfTheNext) {
    EXPECT_EQ(lookUpServers({{"192.0.2.9", 53}, {"name", 53}, {"192.0.2.8", 53}}), "");
    for (const std::string address : {"192.0.2.9", "192.0.2.1", "192.0.2.2", "192.0.2.3"})
        unreachable[address] = "down";
    EXPECT_EQ(tryEach().code, errorNone);
    EXPECT_EQ(tried, (Texts{"192.0.2.9", "192.0.2.1", "192.0.2.2", "192.0.2.3", "192.0.2.8"}));
}

TEST_F(Addresses, EachServerOfAUrlIsNamedWithItsReason) {
    unreachable = {{"192.0.2.9", "down"}, {"192.0.2.1", "slow"}, {"192.0.2.3", "slow"}};
    outcomes = {{"192.0.2.2", wrongServer("a replica")}};
    ASSERT_EQ(lookUpServers({{"192.0.2.9", 53}, {"name", 5353}}), "");
    const Status outcome = tryEach();
    EXPECT_EQ(outcome.reason, "192.0.2.9:53: down; name:5353: a replica");
    EXPECT_EQ(outcome.code, errorServerRefused);
    EXPECT_TRUE(outcome.failover);
}

TEST_F(Addresses, AServerWhoseNameIsUnknownIsSkippedAndNamed) {
    known.clear();
    unreachable = {{"192.0.2.9", "down"}};
    ASSERT_EQ(lookUpServers({{"name", 53}, {"192.0.2.9", 53}}), "");
    EXPECT_EQ(tryEach().reason, "name:53: the name of the server has no address; 192.0.2.9:53: down");
    EXPECT_EQ(lookUpServers({{"name", 53}, {"other", 53}}),
              "name:53: the name of the server has no address; other:53: the name of the server has no address");
}

TEST_F(Addresses, TheOtherServersAreNamedWithTheOneThatFailedLater) {
    ASSERT_EQ(lookUpServers({{"192.0.2.8", 53}, {"192.0.2.9", 53}}), "");
    EXPECT_EQ(tryEach().code, errorNone);
    unreachable = {{"192.0.2.9", "down"}};
    EXPECT_EQ(tryOthers(wrongServer("a replica")).reason, "192.0.2.8:53: a replica; 192.0.2.9:53: down");
}

TEST_F(Addresses, TheDurationOfTheNameResolutionIsAddedToTheLimit) {
    lookUpSeconds = 100;
    EXPECT_EQ(lookUp(), "");
    EXPECT_EQ(until - monotonicNow(), limit);
}

TEST_F(Addresses, AnUnknownNameIsReported) {
    lookUpError = EAI_NONAME;
    EXPECT_EQ(lookUp(), std::string("the name of the server is not known: ") + gai_strerror(EAI_NONAME));
    lookUpError = EAI_SYSTEM;
    EXPECT_EQ(lookUp(), "the name of the server is not known: " + errorText(ENOMEM));
    lookUpError = 0;
    known.clear();
    EXPECT_EQ(lookUp(), "the name of the server has no address");
}

}  // namespace
