//  The back end dyndns2: its url, its requests, and its reaction to each kind of answer of a provider.
#include "dyndns2/answer.h"
#include "dyndns2/provider_url.h"
#include "open_tls_support.h"

#include <fstream>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

namespace {

std::int64_t clockAhead = 0;  // s

//  libcurl reads SSLKEYLOGFILE when it is initialized, and the two proxy variables at each transfer.
const std::string keyLog = testing::TempDir() + "addrpubd-keys-" + std::to_string(getpid());
const int surroundings = setenv("SSLKEYLOGFILE", keyLog.c_str(), 1) | setenv("https_proxy", "http://127.0.0.1:1", 1) |
                         setenv("ALL_PROXY", "http://127.0.0.1:1", 1);

}  // namespace

extern "C" {
int __real_clock_gettime(clockid_t, timespec*);
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    const int result = __real_clock_gettime(clock, now);
    now->tv_sec += clockAhead;
    return result;
}
}

namespace {

using namespace opentest;
using namespace rdbopen;
using Texts = std::vector<std::string>;

Result<Provider> parsed(const std::string& text) {
    const Result<Url> url = parseUrl(text);
    EXPECT_TRUE(url.ok()) << text;
    return url.ok() ? parseProvider(*url) : url.status();
}

TEST(ProviderUrl, HasDefaultsForAllPartsExceptTheServer) {
    const Result<Provider> provider = parsed("dyndns2+https://members.example.org");
    ASSERT_TRUE(provider.ok()) << provider.status().reason;
    EXPECT_EQ(serverText(provider->server), "members.example.org:443");
    EXPECT_EQ(provider->path, "/nic/update");
    EXPECT_EQ(provider->parameter, "myip");
    EXPECT_EQ(provider->authorities, "");
    EXPECT_FALSE(provider->allAddresses);
}

TEST(ProviderUrl, AcceptsOtherValuesThanTheDefaults) {
    const Result<Provider> provider =
        parsed("dyndns2+https://[::1]:8443/v3/up%20date?ca=/ca.pem&addresses=all&parameter=myipv6&skip=ula,if:wg*");
    ASSERT_TRUE(provider.ok()) << provider.status().reason;
    EXPECT_EQ(serverText(provider->server), "[::1]:8443");
    EXPECT_EQ(provider->path, "/v3/up date");
    EXPECT_EQ(provider->parameter, "myipv6");
    EXPECT_EQ(provider->authorities, "/ca.pem");
    EXPECT_TRUE(provider->allAddresses);
    EXPECT_TRUE(provider->filter.skipUla);
    EXPECT_EQ(provider->filter.skipInterfaces, (Texts{"wg*"}));
}

TEST(ProviderUrl, RefusesInvalidUrls) {
    const std::pair<const char*, const char*> rows[] = {
        {"a,b/", "it names more than one server"},
        {"/", "it names no server"},
        {"h/?ttl=1", "it has an option other than addresses, parameter, only, skip and ca"},
        {"h/?ca=/a&ca=/a", "the option ca is given twice"},
        {"h/?ca=a", "ca is not an absolute path"},
        {"h/?addresses=two", "addresses is not first or all"},
        {"h/?parameter=", "parameter is not the name of a parameter for addresses"},
        {"h/?parameter=a%26b", "parameter is not the name of a parameter for addresses"},
        {"h/?parameter=hostname", "parameter is not the name of a parameter for addresses"},
    };
    for (const auto& [rest, reason] : rows) {
        const Status refused = parsed(std::string("dyndns2+https://") + rest).status();
        EXPECT_EQ(refused.code, errorBadUrl) << rest;
        EXPECT_EQ(refused.reason, std::string("malformed url: ") + reason) << rest;
    }
}

TEST(ProviderAnswer, IsReadFromItsFirstWordAndTheStatusOfHttp) {
    using Kind = ProviderAnswer::Kind;
    const struct {
        long status;
        const char* body;
        Kind kind;
        const char* mentions;
    } rows[] = {
        {200, "good 2001:db8::1\n", Kind::accepted, ""},
        {200, "nochg", Kind::accepted, ""},
        {200, "badauth\r\n", Kind::forbidden, "(badauth)"},
        {401, "badauth", Kind::forbidden, "(badauth)"},
        {401, "", Kind::forbidden, "HTTP status 401"},
        {403, "<html>", Kind::forbidden, "HTTP status 403"},
        {200, "nohost", Kind::forbidden, "(nohost)"},
        {200, "notfqdn", Kind::forbidden, "(notfqdn)"},
        {200, "numhost", Kind::forbidden, "(numhost)"},
        {200, "abuse", Kind::forbidden, "(abuse)"},
        {200, "badagent", Kind::forbidden, "(badagent)"},
        {200, "!donator", Kind::forbidden, "(!donator)"},
        {200, "dnserr", Kind::postponed, "(dnserr)"},
        {200, "911 maintenance", Kind::postponed, "(911)"},
        {500, "", Kind::postponed, "HTTP status 500"},
        {500, "good", Kind::postponed, "HTTP status 500"},
        {301, "good", Kind::postponed, "HTTP status 301"},
        {200, "", Kind::postponed, "not one of the protocol"},
        {200, "goodness", Kind::postponed, "not one of the protocol"},
        {200, " good", Kind::postponed, "not one of the protocol"},
    };
    for (const auto& row : rows) {
        const ProviderAnswer answer = readProviderAnswer(row.status, row.body);
        EXPECT_EQ(answer.kind, row.kind) << row.status << row.body;
        EXPECT_EQ(answer.reason.empty(), row.kind == Kind::accepted) << row.body;
        EXPECT_NE(answer.reason.find(row.mentions), std::string::npos) << answer.reason;
    }
}

//  A back end and a provider on loopback, whose answers a test sets.
class Dyndns2 : public testing::Test {
protected:
    Dyndns2() {
        clockAhead = 0;
        writeText(file("ca"), pki().authority.certificatePem());
        writeText(file("password"), "geheim\n");
    }
    std::string file(const std::string& name) const { return folder.file(name); }
    std::string url(const std::string& options = "") const {
        return "dyndns2+https://127.0.0.1:" + std::to_string(server.port()) + "/nic/update?ca=" + file("ca") + options;
    }
    Status open(const std::string& options = "") {
        BackendResult made = makeBackend(url(options), {"me", "file:" + file("password")});
        if (!made.ok())
            return made.status();
        backend = std::move(*made);
        return backend->open(readyWaiter);
    }
    Status update(const std::string& addresses = R"("2001:db8::1")") {
        return backend->updates()->apply(
            R"({"request":"ws_dnsupdate","seqno":7,"item":{"name":"h.example.org","ipv6s":[)" + addresses + "]}}",
            reply);
    }
    std::string respond(const std::string& request) {
        const std::lock_guard lock(mutex);
        requests.push_back(request);
        if (status == 0)
            return {};
        return "HTTP/1.1 " + std::to_string(status) + " x\r\nContent-Length: " + std::to_string(answer.size()) +
               "\r\n\r\n" + answer;
    }
    void answerWith(const std::string& text, int code = 200) {
        const std::lock_guard lock(mutex);
        answer = text;
        status = code;
    }
    std::string lastRequest() {
        const std::lock_guard lock(mutex);
        return requests.back();
    }
    std::size_t sent() {
        const std::lock_guard lock(mutex);
        return requests.size();
    }

    const Folder folder;
    std::mutex mutex;
    Texts requests;
    std::string answer = "good";
    int status = 200;
    TlsServer server{{.answer = [this](const std::string& request) { return respond(request); }}};
    std::unique_ptr<Backend> backend;
    std::string reply;
};

TEST_F(Dyndns2, SendsOneRequestWithTheFirstAddress) {
    ASSERT_EQ(open().reason, "");
    ASSERT_EQ(sent(), 0U);
    EXPECT_EQ(update(R"("2001:db8::1","2001:db8::2")").reason, "");
    EXPECT_EQ(reply, R"({"seqno":7,"code":0,"message":"ok"})");
    ASSERT_EQ(sent(), 1U);
    EXPECT_TRUE(requests[0].starts_with("GET /nic/update?hostname=h.example.org&myip=2001:db8::1 HTTP/1.1\r\n"))
        << requests[0];
    EXPECT_NE(requests[0].find("\r\nAuthorization: Basic bWU6Z2VoZWlt\r\n"), std::string::npos) << requests[0];
    EXPECT_NE(requests[0].find("\r\nUser-Agent: addrpubd/" RDBAPI_VERSION "\r\n"), std::string::npos) << requests[0];
}

TEST_F(Dyndns2, SendsAllAddressesInTheParameterOfTheUrl) {
    ASSERT_EQ(open("&addresses=all&parameter=myipv6").reason, "");
    EXPECT_EQ(update(R"("2001:db8::1","2001:db8::2")").reason, "");
    EXPECT_NE(requests.at(0).find("?hostname=h.example.org&myipv6=2001:db8::1,2001:db8::2 "), std::string::npos);
}

TEST_F(Dyndns2, SendsUnchangedAddressesOnlyAfter25Days) {
    ASSERT_EQ(open().reason, "");
    answerWith("nochg");
    EXPECT_EQ(update().reason, "");
    clockAhead += 25 * 86400 - 60;
    EXPECT_EQ(update().reason, "");
    EXPECT_EQ(sent(), 1U);
    EXPECT_EQ(update(R"("2001:db8::2")").reason, "");
    EXPECT_EQ(sent(), 2U);
    clockAhead += 25 * 86400;
    EXPECT_EQ(update(R"("2001:db8::2")").reason, "");
    EXPECT_EQ(sent(), 3U);
}

TEST_F(Dyndns2, AfterAnAnswerThatForbidsUpdatesSendsNothingUntilThePasswordChanges) {
    ASSERT_EQ(open().reason, "");
    answerWith("badauth", 401);
    const std::string reason = "the provider rejects user or password (badauth); "
                               "nothing is sent until the password or a setting changes";
    EXPECT_EQ(update().reason, reason);
    clockAhead += 365 * 86400;
    const Status again = update(R"("2001:db8::2")");
    EXPECT_EQ(again.code, errorServerRefused);
    EXPECT_EQ(again.reason, reason);
    EXPECT_EQ(sent(), 1U);
    answerWith("good");
    writeText(file("password"), "new\n");
    EXPECT_EQ(update().reason, "");
    EXPECT_EQ(sent(), 2U);
}

TEST_F(Dyndns2, AfterAFaultOfTheProviderSendsNothingFor30Minutes) {
    ASSERT_EQ(open().reason, "");
    answerWith("911");
    EXPECT_EQ(update().reason, "the provider has a fault (911); nothing is sent for 30 minutes");
    clockAhead += 29 * 60;
    EXPECT_EQ(update().code, errorServerRefused);
    EXPECT_EQ(sent(), 1U);
    answerWith("good");
    clockAhead += 60;
    EXPECT_EQ(update().reason, "");
    EXPECT_EQ(sent(), 2U);
}

TEST_F(Dyndns2, SendsTheFirstAddressThatTheFiltersLeave) {
    ASSERT_EQ(open("&only=2001:db8:1::/48").reason, "");
    EXPECT_EQ(update(R"("2001:db8::1","2001:db8:1::2")").reason, "");
    EXPECT_NE(requests.at(0).find("myip=2001:db8:1::2 "), std::string::npos) << requests.at(0);
    EXPECT_EQ(update().code, errorServerRefused);
    EXPECT_EQ(sent(), 1U);
}

TEST_F(Dyndns2, WithoutAnAddressNothingIsSent) {
    ASSERT_EQ(open().reason, "");
    EXPECT_EQ(update("").code, errorServerRefused);
    EXPECT_EQ(sent(), 0U);
}

//  While `silent` is true, each wait ends after 20 ms at the latest.
class ImpatientWaiter : public Waiter {
public:
    Result wait(int descriptor, short events, std::chrono::milliseconds) const noexcept override {
        pollfd waited{descriptor, events, 0};
        const int ready = poll(&waited, 1, silent ? 20 : -1);
        return ready == 1 ? Result::ready : Result::timedOut;
    }
    bool silent = false;
};

TEST_F(Dyndns2, AfterALostAnswerTheAddressesAcceptedBeforeAreSentAgain) {
    ImpatientWaiter waiter;
    BackendResult made = makeBackend(url(), {"me", "x"});
    ASSERT_TRUE(made.ok());
    backend = std::move(*made);
    ASSERT_EQ(backend->open(waiter).reason, "");
    EXPECT_EQ(update().reason, "");
    waiter.silent = true;
    answerWith("", 0);
    EXPECT_EQ(update(R"("2001:db8::2")").reason, "the server does not answer in time");
    waiter.silent = false;
    answerWith("good");
    EXPECT_EQ(update().reason, "");
    EXPECT_EQ(update().reason, "");
    EXPECT_EQ(lastRequest().find("::2"), std::string::npos);
}

TEST_F(Dyndns2, ALongAnswerIsReadLikeAShortOne) {
    ASSERT_EQ(open().reason, "");
    answerWith("good" + std::string(1000000, ' '));
    EXPECT_EQ(update().reason, "");
}

TEST_F(Dyndns2, IgnoresTheProxyAndTheKeyLogOfTheEnvironment) {
    ASSERT_EQ(surroundings, 0);
    ASSERT_EQ(open().reason, "");
    EXPECT_EQ(update().reason, "");
    std::ifstream keys(keyLog);
    EXPECT_EQ(keys.get(), EOF);
    unlink(keyLog.c_str());
}

TEST_F(Dyndns2, VerifiesTheCertificateOfTheProvider) {
    BackendResult made = makeBackend("dyndns2+https://127.0.0.1:" + std::to_string(server.port()), {"me", "x"});
    ASSERT_TRUE(made.ok()) << made.status().reason;
    const Status status = (*made)->open(readyWaiter);
    EXPECT_EQ(status.code, errorBackendFailed);
    EXPECT_NE(status.reason.find("certificate"), std::string::npos) << status.reason;
}

TEST_F(Dyndns2, ClosingTheHandleEndsAWait) {
    class ClosedWaiter : public Waiter {
        Result wait(int, short, std::chrono::milliseconds) const noexcept override { return Result::closed; }
    };
    const ClosedWaiter closed;
    BackendResult made = makeBackend(url(), {"me", "x"});
    ASSERT_TRUE(made.ok());
    EXPECT_EQ((*made)->open(closed).reason, "the handle was closed");
}

}  // namespace
