#include "runcls.h"

#include "service_platform.h"
#include "service_support.h"

#include <gtest/gtest.h>

namespace {

using Ports = std::vector<std::uint16_t>;

Ports portsOf(const olk::vector_<std::uint16_t>& ports) {
    return {ports.begin(), ports.end()};
}

Ports parsed(const std::string& list) {
    olk::vector_<std::uint16_t> ports;
    parsePortList(list, ports);
    return portsOf(ports);
}

class Config : public testing::Test {
protected:
    Config() { platform::reset(); }
    ~Config() override { platform::reset(); }

    void load(const std::string& ini) {
        const MemoryFile file;
        file.write(ini);
        EXPECT_TRUE(run.loadConfig(file.path()));
    }
    //  Returns the eight texts in the order of the keys.
    Lines texts() const {
        return {run.hostname, run.logurl, run.rdburl, run.rdbuser, run.rdbpswd, run.dnsurl, run.dnsuser, run.dnspswd};
    }

    CRunCls run;
};

using PortList = Config;

TEST_F(Config, EachOfTheNineKeysIsStoredInTheFieldOfItsName) {
    load("hostname=h\nlogurl=l\nrdburl=ru\nrdbuser=rn\nrdbpswd=rp\ndnsurl=du\ndnsuser=dn\ndnspswd=dp\n"
         "dnshttpsports=443,8443\n");
    EXPECT_EQ(texts(), (Lines{"h", "l", "ru", "rn", "rp", "du", "dn", "dp"}));
    EXPECT_EQ(portsOf(run.dnshttpsports), (Ports{443, 8443}));
}

TEST_F(Config, AKeyChangesOnlyItsOwnField) {
    const Lines keys = {"hostname", "logurl", "rdburl", "rdbuser", "rdbpswd", "dnsurl", "dnsuser", "dnspswd"};
    for (std::size_t i = 0; i < keys.size(); ++i) {
        SCOPED_TRACE(keys[i]);
        CRunCls one;
        const MemoryFile file;
        file.write(keys[i] + "=443");
        ASSERT_TRUE(one.loadConfig(file.path()));
        Lines expected(keys.size());
        expected[i] = "443";
        EXPECT_EQ((Lines{one.hostname, one.logurl, one.rdburl, one.rdbuser, one.rdbpswd, one.dnsurl, one.dnsuser,
                         one.dnspswd}),
                  expected);
        EXPECT_TRUE(one.dnshttpsports.empty());
    }
}

TEST_F(Config, KeysAreMatchedWithoutRegardToCase) {
    load("HostName=h\nLOGURL=l\nRdbUrl=ru\nrDBUSER=rn\nRDBpswd=rp\nDNSurl=du\ndnsUSER=dn\nDnsPswd=dp\n"
         "DNSHTTPSPORTS=80");
    EXPECT_EQ(texts(), (Lines{"h", "l", "ru", "rn", "rp", "du", "dn", "dp"}));
    EXPECT_EQ(portsOf(run.dnshttpsports), Ports{80});
}

TEST_F(Config, TheSectionIsIgnored) {
    load("[dns]\nHostName = h1 ; comment\n[]\nrdburl=x\n[hostname]\nrdbuser=u\n");
    EXPECT_EQ(run.hostname, "h1");
    EXPECT_EQ(run.rdburl, "x");
    EXPECT_EQ(run.rdbuser, "u");
}

TEST_F(Config, AHostNameKeepsItsInnerBlank) {
    load("hostname = my host\n");
    EXPECT_EQ(run.hostname, "my host");
}

TEST_F(Config, TheLastValueOfAKeyIsUsed) {
    load("hostname=a\ndnshttpsports=1,2\nhostname=b\ndnshttpsports=3\n");
    EXPECT_EQ(run.hostname, "b");
    EXPECT_EQ(portsOf(run.dnshttpsports), Ports{3});
}

TEST_F(Config, ALaterEmptyValueEmptiesAField) {
    load("hostname=a\ndnshttpsports=1,2\nhostname=\ndnshttpsports=\n");
    EXPECT_EQ(run.hostname, "");
    EXPECT_TRUE(run.dnshttpsports.empty());
}

TEST_F(Config, UnknownKeysAreIgnored) {
    const StdoutCapture out;
    load("host=h\nhostnames=h\nhostnam=h\nlevel=40\ndnshttpsport=1\ndnshttpsports1=1\n=x\nhost\xC3=h\n");
    EXPECT_EQ(texts(), Lines(8));
    EXPECT_TRUE(run.dnshttpsports.empty());
    EXPECT_EQ(out.text(), "");
}

TEST_F(Config, TextBeforeAKeyMakesItAnUnknownKey) {
    load("junk\nhostname=h\n");
    EXPECT_EQ(run.hostname, "");
}

TEST_F(Config, AKeyWithAZeroByteIsUnknown) {
    load(std::string("hostname\0x=h\n", 13));
    EXPECT_EQ(run.hostname, "");
}

TEST_F(Config, AValueKeepsItsZeroBytes) {
    load(std::string("hostname=a\0b\n", 13));
    EXPECT_EQ(run.hostname, std::string("a\0b", 3));
}

TEST_F(Config, QuotesArePartOfTheValue) {
    load("hostname=\"h\"\nrdbpswd='p'\n");
    EXPECT_EQ(run.hostname, "\"h\"");
    EXPECT_EQ(run.rdbpswd, "'p'");
}

TEST_F(Config, AnEmptyFileLoadsAndLeavesEveryFieldEmpty) {
    load("");
    EXPECT_EQ(texts(), Lines(8));
    EXPECT_TRUE(run.dnshttpsports.empty());
}

TEST_F(Config, AFileOfSectionHeadersStoresNothing) {
    load("[hostname]\n[rdburl]\n");
    EXPECT_EQ(texts(), Lines(8));
}

TEST_F(Config, AFileThatCannotBeOpenedReturnsFalseAndChangesNothing) {
    const TempFolder folder;
    run.hostname = "kept";
    EXPECT_FALSE(run.loadConfig(folder.file("missing.ini").c_str()));
    EXPECT_EQ(run.hostname, "kept");
}

TEST_F(PortList, EveryRowOfTheTableYieldsItsPorts) {
    const std::vector<Lines> rows = readTable("port_lists.txt");
    ASSERT_GT(rows.size(), 45U);
    for (const Lines& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row));
        Ports expected;
        for (std::size_t i = 1; i < row.size(); ++i)
            expected.push_back(static_cast<std::uint16_t>(std::stoi(row[i])));
        EXPECT_EQ(parsed(row[0] == "E" ? "" : row[0]), expected);
    }
}

TEST_F(PortList, AnItemOf38CharactersIsReadAndAnItemOf39EndsTheList) {
    EXPECT_EQ(parsed("80," + std::string(35, '0') + "443,81"), (Ports{80, 443, 81}));
    EXPECT_EQ(parsed("80," + std::string(36, '0') + "443,81"), Ports{80});
}

TEST_F(PortList, LeadingBlanksAreNotPartOfThe38Characters) {
    EXPECT_EQ(parsed(std::string(100, ' ') + "443"), Ports{443});
}

TEST_F(PortList, TrailingBlanksArePartOfThe38Characters) {
    EXPECT_EQ(parsed("443" + std::string(35, ' ') + ",80"), (Ports{443, 80}));
    EXPECT_EQ(parsed("443" + std::string(36, ' ') + ",80"), Ports{});
}

TEST_F(PortList, ANumberIsReducedTo16Bits) {
    EXPECT_EQ(parsed("70000"), Ports{4464});
}

TEST_F(PortList, TheListIsClearedFirst) {
    olk::vector_<std::uint16_t> ports;
    parsePortList("1,2,3", ports);
    parsePortList("4", ports);
    EXPECT_EQ(portsOf(ports), Ports{4});
}

TEST_F(PortList, HoldsAThousandPortsInTheirOrder) {
    std::string list;
    Ports expected;
    for (std::uint16_t port = 1; port <= 1000; ++port) {
        list += std::to_string(port) + ",";
        expected.push_back(port);
    }
    EXPECT_EQ(parsed(list), expected);
}

TEST_F(PortList, TakesItsMemoryFromThePoolAndFreesIt) {
    const long before = platform::pool_blocks;
    {
        CRunCls object;
        parsePortList("1,2,3", object.dnshttpsports);
        EXPECT_EQ(platform::pool_blocks, before + 1);
    }
    EXPECT_EQ(platform::pool_blocks, before);
}

TEST_F(PortList, IsEmptyWhenThePoolHasNoMemory) {
    platform::hooks().pool_refuses = [](std::size_t) { return true; };
    EXPECT_EQ(parsed("1,2,3"), Ports{});
}

}  // namespace
