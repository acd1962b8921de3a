#include "dns/zone_url.h"

#include <gtest/gtest.h>

namespace {

using namespace rdbopen;

Result<DnsZone> parse(const std::string& text) {
    const Result<Url> url = parseUrl(text);
    EXPECT_TRUE(url.ok()) << text;
    return url.ok() ? parseDnsZone(*url) : url.status();
}

TEST(DnsZoneUrl, HasDefaultsForAllPartsExceptServerAndZone) {
    const Result<DnsZone> result = parse("dns://ns.example.org/example.org");
    ASSERT_TRUE(result.ok()) << result.status().reason;
    EXPECT_EQ(result->servers.at(0).host, "ns.example.org");
    EXPECT_EQ(result->servers.at(0).port, 53);
    EXPECT_EQ(result->zone, "example.org");
    EXPECT_EQ(result->ttl, 60U);
    EXPECT_EQ(result->algorithm, "hmac-sha256");
    const AddressFilter& filter = result->filter;
    EXPECT_FALSE(filter.skipUla || filter.skipTemporary || filter.skipDeprecated);
    EXPECT_TRUE(filter.only.empty() && filter.skipInterfaces.empty());
    EXPECT_EQ(result->check, std::chrono::seconds(60));
}

TEST(DnsZoneUrl, AcceptsSeveralOptionsTogether) {
    const Result<DnsZone> result = parse("dns://[2001:db8::53]:5353/example.org?check=0&skip=deprecated,ula,temporary"
                                         "&algorithm=hmac-sha512&ttl=2147483647&only=2001:db8::/32");
    ASSERT_TRUE(result.ok()) << result.status().reason;
    EXPECT_EQ(result->servers.at(0).host, "2001:db8::53");
    EXPECT_EQ(result->servers.at(0).port, 5353);
    EXPECT_EQ(result->ttl, 2147483647U);
    EXPECT_EQ(result->algorithm, "hmac-sha512");
    EXPECT_TRUE(result->filter.skipUla && result->filter.skipTemporary && result->filter.skipDeprecated);
    EXPECT_EQ(result->filter.only.size(), 1U);
    EXPECT_EQ(result->check, std::chrono::seconds(0));
}

TEST(DnsZoneUrl, MayNameReverseZones) {
    EXPECT_EQ(parse("dns://s/z?ptr=8.B.d.0.1.0.0.2.ip6.arpa,d.f.IP6.arpa.")->reverseZones,
              (std::vector<std::string>{"8.b.d.0.1.0.0.2.ip6.arpa", "d.f.ip6.arpa"}));
    const std::string nibbles = "1.2.3.4.5.6.7.8.9.a.b.c.d.e.f.0.";
    EXPECT_TRUE(parse("dns://s/z?ptr=" + nibbles + nibbles + "ip6.arpa").ok());
    EXPECT_FALSE(parse("dns://s/z?ptr=0." + nibbles + nibbles + "ip6.arpa").ok());
}

TEST(DnsZoneUrl, NamesServersWithTheirPorts) {
    const Result<DnsZone> result = parse("dns://a,b:5353,[::1]/z");
    ASSERT_TRUE(result.ok()) << result.status().reason;
    EXPECT_EQ(result->servers, (std::vector<Server>{{"a", 53}, {"b", 5353}, {"::1", 53}}));
}

TEST(DnsZoneUrl, WithoutServersTheZonesPrimaryServerIsMeant) {
    const Result<DnsZone> result = parse("dns:///z?ttl=5");
    ASSERT_TRUE(result.ok()) << result.status().reason;
    EXPECT_TRUE(result->servers.empty());
    EXPECT_EQ(result->port, 53);
    EXPECT_EQ(parse("dns+tls:///z")->port, 853);
}

TEST(DnsZoneUrl, AcceptsEachAlgorithm) {
    for (const std::string algorithm : {"hmac-sha1", "hmac-sha256", "hmac-sha384", "hmac-sha512"})
        EXPECT_EQ(parse("dns://s/z?algorithm=" + algorithm)->algorithm, algorithm);
}

TEST(DnsZoneUrl, TheZoneIsStoredInLowerCaseWithoutItsLastDot) {
    EXPECT_EQ(parse("dns://s/Example.ORG.")->zone, "example.org");
}

TEST(DnsZoneUrl, AnInvalidUrlIsRefusedWithAReason) {
    const std::string ttl = "malformed url: ttl is not a number of seconds from 0 to 2147483647";
    const std::string check = "malformed url: check is not a number of seconds from 0 to 86400";
    const std::string skip =
        "malformed url: skip is not a list of ula, temporary, deprecated and if:NAME, the words at most once";
    const std::string ptr = "malformed url: ptr is not a list of zones such as 8.b.d.0.1.0.0.2.ip6.arpa";
    const std::string only = "malformed url: only is not a list of IPv6 prefixes, as in 2001:db8:1::/48";
    const std::string algorithm = "malformed url: algorithm is not hmac-sha1, hmac-sha256, hmac-sha384 or hmac-sha512";
    //  The message does not quote the url.
    const std::string options = "malformed url: it has an option other than ttl, algorithm, only, skip, check and ptr";
    const std::string zone = "malformed url: it names no zone, as in dns://SERVER/ZONE";
    const std::pair<std::string, std::string> rows[] = {
        {"dns://a,/z", "malformed url: it names no server"},
        {"dns://a,a/z", "malformed url: it names a server twice"},
        {"dns://k:p@s/z",
         "malformed url: the server part contains \"@\" (user and password have settings of their own)"},
        {"dns://s:0/z", "malformed url: the port of the server is not a number from 1 to 65535"},
        {"dns://s", zone},
        {"dns://s/", zone},
        {"dns://s/.", zone},
        {"dns://s/a..b", zone},
        {"dns://s/a/b", zone},
        {"dns://s/z%20", zone},
        {"dns://s/" + std::string(64, 'a'), zone},
        {"dns://s/z?ttl=", ttl},
        {"dns://s/z?ttl=-1", ttl},
        {"dns://s/z?ttl=60s", ttl},
        {"dns://s/z?ttl=2147483648", ttl},
        {"dns://s/z?check=86401", check},
        {"dns://s/z?check=x", check},
        {"dns://s/z?skip=", skip},
        {"dns://s/z?skip=ula,", skip},
        {"dns://s/z?skip=ula,ula", skip},
        {"dns://s/z?skip=ULA", skip},
        {"dns://s/z?skip=tentative", skip},
        {"dns://s/z?skip=if:", skip},
        {"dns://s/z?only=", only},
        {"dns://s/z?ptr=", ptr},
        {"dns://s/z?ptr=2.ip6.arpa,", ptr},
        {"dns://s/z?ptr=ip6.arpa", ptr},
        {"dns://s/z?ptr=20.ip6.arpa", ptr},
        {"dns://s/z?ptr=g.ip6.arpa", ptr},
        {"dns://s/z?ptr=.ip6.arpa", ptr},
        {"dns://s/z?ptr=2.ip6.arpa.org", ptr},
        {"dns://s/z?ptr=1.2.0.192.in-addr.arpa", ptr},
        {"dns://s/z?algorithm=hmac-md5", algorithm},
        {"dns://s/z?algorithm=hmac-sha224", algorithm},
        {"dns://s/z?algorithm=HMAC-SHA256", algorithm},
        {"dns://s/z?ttl=1&ttl=1", "malformed url: the option ttl is given twice"},
        {"dns://s/z?color=red", options},
        {"dns://s/z?MTIzNDU2Nzg5MDEyMzQ1Ng==", options},
    };
    for (const auto& [url, reason] : rows) {
        const Result<DnsZone> result = parse(url);
        EXPECT_EQ(result.status().code, errorBadUrl) << url;
        EXPECT_EQ(result.status().reason, reason) << url;
    }
}

TEST(DnsName, HasLabelsOfAtMost63AndAtMost253CharactersInTotal) {
    const std::string label(63, 'a');
    const std::string longest = label + "." + label + "." + label + "." + std::string(61, 'a');
    for (const std::string& name : {std::string("a"), std::string("A-b_c.9"), label, longest})
        EXPECT_TRUE(isDnsName(name)) << name;
    for (const std::string& name : {std::string(), std::string("."), std::string("a."), std::string(".a"),
                                    std::string("a b"), std::string("a\\032b"), label + "a", longest + "a"})
        EXPECT_FALSE(isDnsName(name)) << name;
}

}  // namespace
