#include "check.h"

#include "service_platform.h"
#include "service_support.h"

#include <algorithm>
#include <cstring>

#include <netinet/in.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

namespace {

using namespace check;

constexpr char base[] = "hostname = h\nrdburl = log:\nrdbuser = u\nrdbpswd = p\n";

//  The resolver knows two names, both of one address.
int resolve(const char* name, addrinfo** list) {
    static sockaddr_in address = {AF_INET, 0, {htonl(0xC0000201)}, {}};
    static addrinfo entry = {0, AF_INET, SOCK_DGRAM, 0, sizeof address, nullptr, nullptr, nullptr};
    if (std::strcmp(name, "logs.example") != 0 && std::strcmp(name, "192.0.2.1") != 0)
        return EAI_NONAME;
    entry.ai_addr = reinterpret_cast<sockaddr*>(&address);
    *list = &entry;
    return 0;
}

class Check : public testing::Test {
protected:
    Check() {
        platform::reset();
        platform::hooks().getaddrinfo = resolve;
    }
    ~Check() override { platform::reset(); }

    CReport examined(const std::string& bytes) {
        CReport report;
        report.file = "x";
        EXPECT_TRUE(checkBytes(bytes, report));
        return report;
    }
    //  Writes a file with this mode first.
    CReport examinedFile(const std::string& bytes, mode_t mode) {
        const std::string path = folder.file("addrpubd.ini");
        writeFile(path, bytes);
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        CReport report;
        report.file = path;
        std::string problem;
        EXPECT_TRUE(checkFile(path, report, problem)) << problem;
        return report;
    }
    //  Reports say what the C library calls an error, in the language of the locale; the expectations are English.
    static std::string translated(std::string line) {
        const std::string english = "No such file or directory";
        const std::size_t at = line.find(english);
        return at == std::string::npos ? line : line.replace(at, english.size(), std::strerror(ENOENT));
    }
    static Lines translated(Lines lines) {
        for (std::string& line : lines)
            line = translated(line);
        return lines;
    }
    static Lines linesOf(const CReport& report) {
        Lines lines;
        for (const Finding& finding : report.findings)
            lines.push_back(std::to_string(finding.line) +
                            (finding.severity == Severity::error ? " error " : " warning ") + finding.text);
        std::sort(lines.begin(), lines.end());
        return lines;
    }

    TempFolder folder;
};

TEST_F(Check, FindsWhatEveryRowOfTheTableSays) {
    const std::vector<Lines> rows = readTable("check_findings.txt");
    ASSERT_GT(rows.size(), 70U);
    for (const Lines& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row));
        const CReport report = examined(row[0].starts_with('+') ? base + row[0].substr(1) : row[0]);
        EXPECT_EQ(linesOf(report), translated(Lines(row.begin() + 2, row.end())));
        EXPECT_EQ(std::to_string(report.exitStatus()), row.at(1));
    }
}

TEST_F(Check, TellsTheFindingsInTheOrderOfTheLines) {
    std::vector<std::size_t> order;
    for (const Finding& finding : examined("dnshttpsports = x\nhostname = a:b\nttl = 1\n").findings)
        order.push_back(finding.line);
    EXPECT_EQ(order, (std::vector<std::size_t>{1, 1, 2, 3, 0}));
}

TEST_F(Check, SaysTheNineSettings) {
    const CReport report = examined("hostname=h\xff\nlogurl=stdout\nrdburl=redis://u:pw@r\nrdbuser= a \"b\nrdbpswd=s\n"
                                    "dnsurl=log:\ndnsuser=\ndnspswd=file:/a b\ndnshttpsports=443,8443\n");
    EXPECT_EQ(report.table,
              (Lines{"hostname      = \"h\\xff\"", "logurl        = \"stdout\"", "rdburl        = \"redis://***@r\"",
                     "rdbuser       = \"a \\\"b\"", "rdbpswd       = set, not shown", "dnsurl        = \"log:\"",
                     "dnsuser       = \"\"", "dnspswd       = in the file \"/a b\"", "dnshttpsports = 443, 8443"}));
}

TEST_F(Check, SaysWhatTheServiceDoesWithThem) {
    EXPECT_EQ(examined(base).words,
              (Lines{"nothing is logged", "it connects to the rdb server", "the DNS server is left out"}));
    EXPECT_EQ(examined("logurl=stdout").words, (Lines{"the log goes to the console; -start shows its first lines only",
                                                      "the rdb server is left out", "the DNS server is left out"}));
    EXPECT_EQ(examined("logurl=udp://192.0.2.1/x?level=dbg").words.at(0),
              "the log goes to the log server, with records of level dbg and more severe ones");
    EXPECT_EQ(examined("logurl=udp://unknown.example/x").words.at(0), "nothing is logged");
}

TEST_F(Check, AnAddressThatGetsNoSocketStaysSilent) {
    platform::hooks().socket = [](int, int, int) { return -1; };
    EXPECT_EQ(linesOf(examined(std::string(base) + "logurl=udp://192.0.2.1/x")),
              (Lines{"5 warning the log stays silent: no socket can be had"}));
}

TEST_F(Check, AFileThatCannotBeOpenedIsAnError) {
    CReport report;
    std::string problem;
    EXPECT_TRUE(checkFile(folder.file("missing"), report, problem));
    EXPECT_EQ(linesOf(report), translated(Lines{"0 error it cannot be opened (No such file or directory): the service "
                                                "says \"Load ... failed.\""}));
    EXPECT_TRUE(report.table.empty());
    EXPECT_EQ(report.exitStatus(), 2);
}

TEST_F(Check, ADirectoryReadsAsAnEmptyFile) {
    CReport report;
    std::string problem;
    EXPECT_TRUE(checkFile(folder.path(), report, problem));
    EXPECT_EQ(linesOf(report).at(0), "0 error hostname is missing or empty; the service logs \"not config hostname\"");
    EXPECT_EQ(linesOf(report).at(1), "0 warning it is a directory, which reads as an empty file");
}

TEST_F(Check, AFileOfMoreThanOneMebibyteIsNotExamined) {
    const std::string path = folder.file("large");
    CReport report;
    std::string problem;
    writeFile(path, "#" + std::string(1 << 20, 'x'));
    EXPECT_FALSE(checkFile(path, report, problem));
    EXPECT_EQ(problem, "it has more than 1 MiB and is not examined");
    writeFile(path, "#" + std::string((1 << 20) - 1, 'x'));
    EXPECT_TRUE(checkFile(path, report, problem));
}

TEST_F(Check, APasswordThatEverybodyCanReadIsRemarked) {
    for (const mode_t mode : {0600U, 0640U, 0660U})
        EXPECT_EQ(linesOf(examinedFile(base, mode)), Lines{});
    EXPECT_EQ(linesOf(examinedFile(base, 0604)),
              (Lines{"0 warning it holds a password and everybody can read it: chmod o= takes that from them"}));
}

TEST_F(Check, AFileWithoutAPasswordMayBeReadByEverybody) {
    EXPECT_EQ(linesOf(examinedFile("hostname = h\n", 0644)),
              (Lines{"0 warning neither server is configured: the service runs and publishes nothing"}));
    const std::string password = folder.file("password");
    writeFile(password, "p\n");
    EXPECT_EQ(linesOf(examinedFile("hostname=h\nrdburl=log:\nrdbuser=u\nrdbpswd=file:" + password, 0644)), Lines{});
}

#if defined(RDBOPEN_WITH_SQLITE) && defined(RDBOPEN_WITH_HOSTS)
TEST_F(Check, ExchangedUrlsAreRemarked) {
    const Lines lines = linesOf(examined("hostname=h\nrdburl=hosts:///x\nrdbuser=u\nrdbpswd=p\n"
                                         "dnsurl=sqlite:///x\ndnsuser=u\ndnspswd=p\n"));
    EXPECT_EQ(lines, (Lines{"2 warning rdburl: the back end of this scheme is none for the rdb server: every request "
                            "to it fails (rdburl and dnsurl exchanged?)",
                            "5 warning dnsurl: the back end of this scheme is none for the DNS server: every request "
                            "to it fails (rdburl and dnsurl exchanged?)"}));
}
#endif

#ifdef RDBOPEN_WITH_DNS
TEST_F(Check, ANameOutsideTheZoneIsRemarked) {
    const auto examine = [this](const std::string& name, const std::string& url) {
        return linesOf(examined("hostname=" + name + "\ndnsurl=" + url + "\ndnsuser=u\ndnspswd=c2VjcmV0\n"));
    };
    const Lines outside = {"1 warning hostname is not in the zone example.org of dnsurl, so no update is sent"};
    for (const char* name : {"h.example.com", "x-example.org", "h.example.org.com"})
        EXPECT_EQ(examine(name, "dns://s/Example.org."), outside) << name;
    for (const char* name : {"h", "h.example.org", "H.Example.ORG", "a.b.example.org", "example.org"})
        EXPECT_EQ(examine(name, "dns://s/example.org?ttl=60"), Lines{}) << name;
    EXPECT_EQ(examine("h.example.com", "log:"), Lines{});
}

TEST_F(Check, APasswordThatIsNoSecretOfAKeyIsRemarked) {
    const auto examine = [this](const std::string& password) {
        return linesOf(examined("hostname=h\ndnsurl=dns://s/example.org\ndnsuser=u\ndnspswd=" + password));
    };
    const Lines remark = {"4 warning dnspswd is not the secret of a key in base64, so no update is sent"};
    EXPECT_EQ(examine("c2VjcmV0"), Lines{});
    EXPECT_EQ(examine("not base64!"), remark);
    const std::string file = folder.file("secret");
    writeFile(file, "c2VjcmV0\n");
    EXPECT_EQ(examine("file:" + file), Lines{});
    writeFile(file, "key host1 {\n");
    EXPECT_EQ(examine("file:" + file), remark);
}
#endif

TEST_F(Check, ASystemWithoutMemoryFilesIsAProblemOfTheTool) {
    platform::hooks().ftruncate = [](int, off_t) { return -1; };
    CReport report;
    EXPECT_FALSE(checkBytes(base, report));
}

TEST_F(Check, TheUsualPlaceIsTakenWhenThereIsNoFileBesideTheProgram) {
    const std::string beside = folder.file("addrpubd.ini");
    const std::string usual = folder.file("usual.ini");
    EXPECT_EQ(defaultPath(folder.path() + "/", usual), beside);
    writeFile(usual, "");
    EXPECT_EQ(defaultPath(folder.path() + "/", usual), usual);
    writeFile(beside, "");
    EXPECT_EQ(defaultPath(folder.path() + "/", usual), beside);
}

}  // namespace
