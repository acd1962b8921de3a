//  rediss:// and dns+tls://: the back ends redis and dns over TLS, and the warnings of addrpubd-check.
#include "open_dns_support.h"
#include "open_fake_redis.h"
#include "open_tls_support.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

using namespace opentest;
using namespace rdbopen;

constexpr const char* request =
    R"({"request":"ws_dnsupdate","seqno":7,"item":{"name":"host1","ipv6s":["2001:db8::1"]}})";

Status madeFrom(const std::string& url) {
    return makeBackend(url, {"key1", testSecret}).status();
}

class TlsBackend : public testing::Test {
protected:
    TlsBackend() {
        writeText(file("ca"), pki().authority.certificatePem());
        writeText(file("cert"), pki().client.certificatePem());
        writeText(file("key"), pki().client.keyPem());
        chmod(file("key").c_str(), 0640);
    }
    std::string file(const std::string& name) const { return folder.file(name); }
    std::string client() const { return "&cert=" + file("cert") + "&key=" + file("key"); }
    std::string url(const std::string& scheme, const TlsServer& server, const std::string& rest = "") const {
        return scheme + "://127.0.0.1:" + std::to_string(server.port()) + rest + "?ca=" + file("ca");
    }
    std::vector<std::string> adviceOn(const std::string& text) const {
        const Result<Url> parsed = parseUrl(text);
        std::vector<Advice> advice;
        const Result<const Module*> module = moduleForUrl(*parsed);
        (*module)->advise({*parsed, {"key1", testSecret}, "rdburl", "rdbpswd", "host1", {}}, advice);
        std::vector<std::string> texts;
        for (const Advice& one : advice)
            texts.push_back(one.text);
        return texts;
    }

    const Folder folder;
};

TEST(TlsUrl, TakesTheOptionsOfTlsAndOfTheBackEnd) {
    for (const char* url :
         {"rediss://host", "rediss://host:6380/3?expire=660&ca=/a", "rediss://[::1]?name=server.test&cert=/c&key=/k",
          "rediss://[fe80::1%25eth0]", "rediss://host.?name=2001:db8::1", "RedisS://h", "dns+tls://host/example.org",
          "dns+tls:///example.org", "dns+tls://a,b:8853/example.org?ptr=2.ip6.arpa",
          "dns+tls://h/example.org?ca=/a&ttl=60&check=0&skip=ula&name=n&algorithm=hmac-sha512&key=/k&cert=/c"})
        EXPECT_EQ(madeFrom(url).reason, "") << url;
}

TEST(TlsUrl, RefusesInvalidOptionsAndAddresses) {
    const std::pair<const char*, const char*> rows[] = {
        {"?ca=", "the option ca is empty or given twice"},
        {"?name=a&name=a", "the option name is empty or given twice"},
        {"?ca=relative", "ca, cert and key are absolute paths"},
        {"?cert=/c&key=k", "ca, cert and key are absolute paths"},
        {"?cert=/c", "cert and key belong together"},
        {"?key=/k", "cert and key belong together"},
        {"?name=a/b", "name is not the name or the address of a server"},
        {"?name=a%20b", "name is not the name or the address of a server"},
    };
    for (const auto& [options, reason] : rows)
        for (const std::string place : {"rediss://host/0", "dns+tls://host/example.org"}) {
            EXPECT_EQ(madeFrom(place + options).code, errorBadUrl);
            EXPECT_EQ(madeFrom(place + options).reason, std::string("malformed url: ") + reason);
        }
    EXPECT_EQ(madeFrom("rediss:///0").reason, "malformed url: it names no server");
    EXPECT_EQ(madeFrom("rediss://h?verify=no").reason,
              "malformed url: it has an option other than expire, history, ca, cert, key and name");
    EXPECT_EQ(madeFrom("dns+tls://h/example.org?verify=no").reason,
              "malformed url: it has an option other than ttl, algorithm, only, skip, check, ptr, ca, cert, "
              "key and name");
    EXPECT_EQ(madeFrom("redis://h?ca=/a").reason, "malformed url: it has an option other than expire and history");
    EXPECT_EQ(madeFrom("dns://h/example.org?ca=/a").reason,
              "malformed url: it has an option other than ttl, algorithm, only, skip, check and ptr");
    EXPECT_EQ(madeFrom("rediss:///s").code, errorBadUrl);
    EXPECT_EQ(madeFrom("dns+tls://h/").code, errorBadUrl);
}

TEST(TlsUrl, OnlyTheSchemesOfTheTableLeadToAModule) {
    for (const char* url : {"dns-tls://h/z", "dns+tls+x://h/z", "redis+tls://h", "redis-unix:///s", "rediss+unix:///s",
                            "dns.tls://h/z", "redis+://h"})
        EXPECT_EQ(madeFrom(url).code, errorUnknownScheme) << url;
}

TEST(TlsUrl, TheDefaultPortsAreThoseOfTheServers) {
    EXPECT_EQ(backendFor("rediss://host", {"u", "p"})->label(), "rediss://host:6379/0");
    EXPECT_EQ(backendFor("dns+tls://host/example.org", {"u", testSecret})->label(), "dns+tls://host:853/example.org");
}

TEST_F(TlsBackend, RedissServesTheBackEndRedis) {
    FakeRedis redis;
    const TlsServer server({.clientsIssuer = &pki().authority, .upstream = redis.port()});
    const auto backend = backendFor(url("rediss", server, "/3") + client(), {"u", "secret"});
    ASSERT_NE(backend, nullptr);
    ASSERT_EQ(backend->open(plainWaiter).reason, "");
    EXPECT_EQ(redis.received("SELECT"), (std::vector<FakeRedis::Command>{{"SELECT", "3"}}));
    EXPECT_EQ(backend->tags()->import(usableTag("host1")).reason, "");
    EXPECT_EQ(backend->probe().reason, "");
    //  An unrequested answer makes the watched descriptor readable, although the answer is encrypted.
    redis.say("+PONG\r\n");
    pollfd waited{backend->watchedDescriptor(), POLLIN, 0};
    ASSERT_EQ(poll(&waited, 1, 60000), 1);
    EXPECT_EQ(backend->probe().reason, "the server sent what it was not asked for");
    backend->close();
    EXPECT_EQ(backend->watchedDescriptor(), -1);
}

TEST_F(TlsBackend, RedissNoticesTheEndOfTheConnection) {
    FakeRedis redis;
    const TlsServer server({.upstream = redis.port()});
    const auto backend = backendFor(url("rediss", server), {"u", "secret"});
    ASSERT_EQ(backend->open(plainWaiter).reason, "");
    redis.hangUp();
    pollfd waited{backend->watchedDescriptor(), POLLIN, 0};
    ASSERT_EQ(poll(&waited, 1, 60000), 1);
    EXPECT_EQ(backend->probe().reason, "the server closed the connection");
}

TEST_F(TlsBackend, RedissDoesNotBlameTlsForAnEnd) {
    FakeRedis redis;
    redis.answerAndClose("AUTH", "");
    const TlsServer server({.upstream = redis.port()});
    const auto backend = backendFor(url("rediss", server), {"u", "secret"});
    EXPECT_EQ(backend->open(plainWaiter).reason, "the server closed the connection");
}

TEST_F(TlsBackend, TheAuthoritiesAreReadAgainForEachConnection) {
    FakeRedis redis;
    const TlsServer server({.upstream = redis.port()});
    const auto backend = backendFor(url("rediss", server), {"u", "secret"});
    const std::string authority = readText(file("ca"));
    writeText(file("ca"), pki().server.certificatePem());
    EXPECT_EQ(backend->open(plainWaiter).reason,
              "the server's certificate is issued by an unknown authority (ca=FILE)");
    backend->close();
    writeText(file("ca"), authority);
    EXPECT_EQ(backend->open(plainWaiter).reason, "");
}

TEST_F(TlsBackend, DnsTlsServesTheBackEndDns) {
    DnsServer dns([](const SeenRequest& seen) {
        return Reaction{framed(genuineAnswer(seen, 0, {soaOf("example.org")})), Reaction::Then::goOn};
    });
    const TlsServer server({.upstream = dns.port()});
    const auto backend = backendFor(url("dns+tls", server, "/example.org") + "&ttl=30", {"key1", testSecret});
    ASSERT_NE(backend, nullptr);
    ASSERT_EQ(backend->open(plainWaiter).reason, "");
    std::string reply;
    EXPECT_EQ(backend->updates()->apply(request, reply).reason, "");
    EXPECT_NE(reply.find("\"code\":0"), std::string::npos) << reply;
    EXPECT_EQ(server.connections(), 2);
    EXPECT_EQ(server.offered(), "dot");
    backend->close();
}

TEST_F(TlsBackend, NoSecretIsInAReason) {
    const TlsServer server({.answer = [](const std::string& text) { return "-ERR " + text + "\r\n"; }});
    const auto backend = backendFor(url("rediss", server), {"someuser", "topsecret"});
    const std::string reason = backend->open(plainWaiter).reason;
    EXPECT_NE(reason, "");
    EXPECT_EQ(reason.find("topsecret"), std::string::npos) << reason;
    EXPECT_EQ(reason.find("someuser"), std::string::npos) << reason;
}

TEST_F(TlsBackend, GoodFilesGetNoAdvice) {
    const std::string options = "?ca=" + file("ca") + client();
    EXPECT_EQ(adviceOn("rediss://host" + options), std::vector<std::string>());
    EXPECT_EQ(adviceOn("dns+tls://host/example.org" + options), std::vector<std::string>());
    EXPECT_EQ(adviceOn("rediss://host"), std::vector<std::string>());
}

TEST_F(TlsBackend, AFileThatCannotBeUsedGetsAWarning) {
    for (const std::string place : {"rediss://host", "dns+tls://host/example.org"})
        EXPECT_EQ(adviceOn(place + "?ca=" + file("absent")),
                  std::vector{"rdburl: ca: " + file("absent") + " cannot be read: " + errorText(ENOENT)});
    writeText(file("key"), pki().server.keyPem());
    EXPECT_EQ(adviceOn("rediss://host?ca=" + file("ca") + client()),
              std::vector{"rdburl: key: " + file("key") + " holds a key that does not belong to the certificate"});
}

TEST_F(TlsBackend, AKeyThatEverybodyCanReadOrWriteGetsAWarning) {
    for (const mode_t mode : {0604U, 0602U}) {
        chmod(file("key").c_str(), mode);
        EXPECT_EQ(adviceOn("rediss://host?ca=" + file("ca") + client()),
                  std::vector{"rdburl: key: everybody can read or write the file " + file("key")});
    }
}

TEST_F(TlsBackend, ACertificateThatExpiresSoonGetsAWarning) {
    constexpr long day = 86400;
    const std::string option = "rdburl: ca: " + file("ca") + " holds a certificate that ";
    const std::pair<long, std::vector<std::string>> rows[] = {
        {14 * day + 60, {}},
        {14 * day - 60, {option + "expires in less than 14 days"}},
        {60, {option + "expires in less than 1 days"}},
        {-60, {option + "has expired"}},
        {-3 * day, {option + "has expired"}},
    };
    for (const auto& [left, advice] : rows) {
        writeText(file("ca"), certify({.from = -9 * day, .to = left}, nullptr).certificatePem());
        EXPECT_EQ(adviceOn("rediss://host?ca=" + file("ca")), advice) << left;
    }
}

}  // namespace
