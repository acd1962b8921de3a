#include "check.h"

#include "backends.h"
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

//  A resolver that knows two names with the same address.
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
    //  Writes a file with this mode. Returns the report of its check.
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
    //  Returns the path of a file with a password and this mode.
    std::string passwordFile(mode_t mode) {
        std::string path = folder.file("password");
        writeFile(path, "p\n");
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        return path;
    }
    //  Reports contain error texts of the C library in the language of the locale. This function translates the one
    //  error text that the tests expect in English.
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

TEST_F(Check, ReportsTheFindingsOfEveryTableRow) {
    const std::vector<Lines> rows = readTable("check_findings.txt");
    ASSERT_GT(rows.size(), 70U);
    for (const Lines& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row));
        const CReport report = examined(row[0].starts_with('+') ? base + row[0].substr(1) : row[0]);
        EXPECT_EQ(linesOf(report), translated(Lines(row.begin() + 2, row.end())));
        EXPECT_EQ(std::to_string(report.exitStatus()), row.at(1));
    }
}

#if defined(RDBOPEN_WITH_SQLITE) && defined(RDBOPEN_WITH_HOSTS)

TEST_F(Check, AFolderThatOtherUsersCanWriteIsReportedAnywhereOnThePath) {
    const std::string url[] = {"sqlite:///tmp/new/rdb.db", "hosts:///var/../tmp/hosts"};
    const std::string remark = ": other users can create files in /tmp/, a folder of the path: use a folder that only "
                               "the service may write to";
    const CReport report = examined("hostname=h\nrdburl=" + url[0] + "\nrdbuser=u\nrdbpswd=p\ndnsurl=" + url[1] +
                                    "\ndnsuser=u\ndnspswd=p\n");
    EXPECT_EQ(linesOf(report), (Lines{"2 warning rdburl" + remark, "5 warning dnsurl" + remark}));
    EXPECT_EQ(report.exitStatus(), 1);
}

TEST_F(Check, TheFolderOfAMalformedUrlIsNotReported) {
    const CReport report = examined("hostname=h\nrdburl=log:\nrdbuser=u\nrdbpswd=p\ndnsurl=hosts:///tmp/hosts?only=x\n"
                                    "dnsuser=u\ndnspswd=p\n");
    EXPECT_EQ(linesOf(report), Lines{"5 error dnsurl: malformed url: only is not a list of IPv6 prefixes, as in "
                                     "2001:db8:1::/48"});
}

TEST_F(Check, AFolderOfOneUserIsNotReported) {
    const CReport report = examined("hostname=h\nrdburl=sqlite:///var/lib/new/rdb.db\nrdbuser=u\nrdbpswd=p\n"
                                    "dnsurl=hosts:///etc/hosts\ndnsuser=u\ndnspswd=p\n");
    EXPECT_EQ(linesOf(report), Lines());
}

#endif

TEST_F(Check, ListsTheFindingsInTheOrderOfTheLines) {
    std::vector<std::size_t> order;
    for (const Finding& finding : examined("dnshttpsports = x\nhostname = a:b\nttl = 1\n").findings)
        order.push_back(finding.line);
    EXPECT_EQ(order, (std::vector<std::size_t>{1, 1, 2, 3, 0}));
}

TEST_F(Check, ListsTheNineSettings) {
    const CReport report = examined("hostname=h\xff\nlogurl=stdout\nrdburl=redis://u:pw@r\nrdbuser= a \"b\nrdbpswd=s\n"
                                    "dnsurl=log:\ndnsuser=\ndnspswd=file:/a b\ndnshttpsports=443,8443\n");
    EXPECT_EQ(report.table,
              (Lines{"hostname      = \"h\\xff\"", "logurl        = \"stdout\"", "rdburl        = \"redis://***@r\"",
                     "rdbuser       = \"a \\\"b\"", "rdbpswd       = set, not shown", "dnsurl        = \"log:\"",
                     "dnsuser       = \"\"", "dnspswd       = in the file \"/a b\"", "dnshttpsports = 443, 8443"}));
}

TEST_F(Check, DescribesWhatTheServiceDoesWithThem) {
    EXPECT_EQ(examined(base).words,
              (Lines{"nothing is logged", "it connects to the rdb server", "the DNS server is left out"}));
    EXPECT_EQ(examined("logurl=stdout").words, (Lines{"the log goes to the console; -start shows its first lines only",
                                                      "the rdb server is left out", "the DNS server is left out"}));
    EXPECT_EQ(examined("logurl=udp://192.0.2.1/x?level=dbg").words.at(0),
              "the log goes to the log server, with records of level dbg and more severe ones");
    EXPECT_EQ(examined("logurl=udp://unknown.example/x").words.at(0), "nothing is logged");
}

TEST_F(Check, ALogWithoutASocketIsReported) {
    platform::hooks().socket = [](int, int, int) { return -1; };
    EXPECT_EQ(linesOf(examined(std::string(base) + "logurl=udp://192.0.2.1/x")),
              (Lines{"5 warning nothing is logged: no socket can be opened"}));
}

TEST_F(Check, AFileThatCannotBeOpenedIsAnError) {
    CReport report;
    std::string problem;
    EXPECT_TRUE(checkFile(folder.file("missing"), report, problem));
    EXPECT_EQ(linesOf(report), translated(Lines{"0 error it cannot be opened (No such file or directory): the service "
                                                "reports \"Load ... failed.\""}));
    EXPECT_TRUE(report.table.empty());
    EXPECT_EQ(report.exitStatus(), 2);
}

TEST_F(Check, ADirectoryIsCheckedAsAnEmptyFile) {
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

TEST_F(Check, AFileInUtf16IsReportedAsOneFinding) {
    const auto wide = [](const std::string& text, bool big) {
        std::string bytes;
        for (const char c : text)
            bytes += big ? std::string(1, '\0') + c : c + std::string(1, '\0');
        return bytes;
    };
    const Lines remark = {"0 error it is UTF-16, in which the service finds no setting: save it as UTF-8"};
    for (const std::string& bytes : {"\xFF\xFE" + wide(base, false), "\xFE\xFF" + wide(base, true), wide(base, false),
                                     wide(base, true), "\xFF\xFE" + wide("", false)}) {
        const CReport report = examinedFile(bytes, 0600);
        EXPECT_EQ(linesOf(report), remark) << testing::PrintToString(bytes);
        EXPECT_EQ(report.table.size() + report.words.size(), 0U);
        EXPECT_EQ(report.exitStatus(), 2);
    }
}

TEST_F(Check, OtherFilesAreNotReportedAsUtf16) {
    EXPECT_EQ(examinedFile("\xFF\xFE\n" + std::string("#\n") + base, 0600).table.size(), 9U);
    EXPECT_EQ(examinedFile(std::string(base) + "\xFF\xFE", 0600).table.size(), 9U);
    EXPECT_EQ(examinedFile(std::string("a\0bc\n", 5), 0600).table.size(), 9U);
}

TEST_F(Check, APasswordThatEverybodyCanReadIsReported) {
    for (const mode_t mode : {0600U, 0640U, 0660U})
        EXPECT_EQ(linesOf(examinedFile(base, mode)), Lines{});
    EXPECT_EQ(linesOf(examinedFile(base, 0604)),
              (Lines{"0 warning it holds a password and everybody can read it: chmod o= removes this access"}));
}

TEST_F(Check, AFileWithoutAPasswordMayBeReadByEverybody) {
    EXPECT_EQ(linesOf(examinedFile("hostname = h\n", 0644)),
              (Lines{"0 warning neither server is configured: the service runs and publishes nothing"}));
    const std::string settings = "hostname=h\nrdburl=log:\nrdbuser=u\nrdbpswd=file:" + passwordFile(0600);
    EXPECT_EQ(linesOf(examinedFile(settings, 0644)), Lines{});
}

TEST_F(Check, AFileThatEverybodyCanWriteIsReported) {
    const std::string remark = "0 warning everybody can write it: chmod o= removes this access";
    EXPECT_EQ(linesOf(examinedFile(base, 0602)), Lines{remark});
    EXPECT_EQ(linesOf(examinedFile("hostname = h\n", 0646)).at(0), remark);
    EXPECT_EQ(linesOf(examinedFile(base, 0606)),
              (Lines{remark, "0 warning it holds a password and everybody can read it: chmod o= removes this access"}));
}

TEST_F(Check, WriteAccessToADirectoryADeviceOrAPipeIsNotReported) {
    constexpr mode_t types[] = {S_IFDIR, S_IFCHR, S_IFIFO};
    for (const mode_t type : types) {
        Subject subject;
        CReport report;
        struct stat status {};
        status.st_mode = type | 0666;
        checkMode(subject, status, report);
        EXPECT_EQ(linesOf(report),
                  type == S_IFDIR ? Lines{"0 warning it is a directory, which reads as an empty file"} : Lines{});
    }
}

TEST_F(Check, APasswordFileThatEverybodyCanReadOrWriteIsReported) {
    const auto examine = [this](mode_t mode) {
        return linesOf(examined("hostname=h\nrdburl=log:\nrdbuser=u\nrdbpswd=file:" + passwordFile(mode)));
    };
    const auto remark = [this](const std::string& verb) {
        return "4 warning rdbpswd: everybody can " + verb + " the password file " + folder.file("password") +
               ": chmod o= removes this access";
    };
    for (const mode_t mode : {0400U, 0600U, 0640U, 0660U})
        EXPECT_EQ(examine(mode), Lines{}) << std::oct << mode;
    EXPECT_EQ(examine(0644), Lines{remark("read")});
    EXPECT_EQ(examine(0602), Lines{remark("write")});
    EXPECT_EQ(examine(0606), (Lines{remark("read"), remark("write")}));
}

TEST_F(Check, ThePasswordFileOfTheDnsServerIsCheckedToo) {
    const Lines lines = linesOf(examined("hostname=h\ndnsurl=log:\ndnsuser=u\ndnspswd=file:" + passwordFile(0604)));
    EXPECT_EQ(lines, (Lines{"4 warning dnspswd: everybody can read the password file " + folder.file("password") +
                            ": chmod o= removes this access"}));
}

TEST_F(Check, ThePasswordFileOfAnUnusedServerIsIgnored) {
    const Lines lines = linesOf(examined(std::string(base) + "dnspswd=file:" + passwordFile(0666)));
    EXPECT_EQ(lines, (Lines{"5 warning dnsurl and dnsuser are missing or empty, so the DNS server is left out"}));
}

#if defined(RDBOPEN_WITH_SQLITE) && defined(RDBOPEN_WITH_HOSTS)
TEST_F(Check, UrlsInTheWrongSettingAreReported) {
    const Lines lines = linesOf(examined("hostname=h\nrdburl=hosts:///x\nrdbuser=u\nrdbpswd=p\n"
                                         "dnsurl=sqlite:///x\ndnsuser=u\ndnspswd=p\n"));
    EXPECT_EQ(lines,
              (Lines{"2 warning rdburl: the back end of this scheme does not serve the rdb server: every request "
                     "to it fails (rdburl and dnsurl exchanged?)",
                     "5 warning dnsurl: the back end of this scheme does not serve the DNS server: every request "
                     "to it fails (rdburl and dnsurl exchanged?)"}));
}
#endif

#ifdef RDBOPEN_WITH_DNS
TEST_F(Check, ANameOutsideTheZoneIsReported) {
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

//  Returns a name of the given length in bytes. Its labels have at most 49 bytes; its zone has 11 bytes.
std::string nameOfLength(std::size_t length) {
    const std::string zone = "example.org";
    std::string name;
    for (std::size_t i = 0; i + zone.size() + 1 < length; ++i)
        name += i % 50 == 49 ? '.' : 'x';
    return name + "." + zone;
}

TEST_F(Check, ANameThatIsTooLongForItsRecordsIsReported) {
    const auto examine = [this](const std::string& name, const std::string& ports, const std::string& zone) {
        Lines lines = linesOf(examined("hostname=" + name + "\ndnsurl=dns://s/" + zone +
                                       "\ndnsuser=u\ndnspswd=c2VjcmV0\ndnshttpsports=" + ports + "\n"));
        std::erase_if(lines, [](const std::string& line) { return line.find("the rdb server gets") != line.npos; });
        return lines;
    };
    const auto remark = [](int length) {
        return Lines{"1 warning hostname is too long: a name of its records in the zone of dnsurl has " +
                     std::to_string(length) + " bytes, 253 at most, so no update is sent"};
    };
    EXPECT_EQ(examine(nameOfLength(253), "", "example.org"), Lines{});
    EXPECT_EQ(examine(nameOfLength(253), "443", "example.org"), Lines{});
    EXPECT_EQ(examine(nameOfLength(240), "8443", "example.org"), Lines{});
    EXPECT_EQ(examine(nameOfLength(241), "8443", "example.org"), remark(254));
    EXPECT_EQ(examine(nameOfLength(240), "18443,8443", "example.org"), remark(254));
    EXPECT_EQ(examine("hostname-of-19bytes", "443", nameOfLength(233)), Lines{});
    EXPECT_EQ(examine("hostname-of-19bytes", "443", nameOfLength(234)), remark(254));
}

//  Returns whether the back end refuses the name. The password file does not exist, so the back end sends no request;
//  it still refuses requests that can never succeed.
bool backEndRefuses(const std::string& name, const std::string& port, const std::string& zone) {
    const rdbopen::BackendResult backend = rdbopen::makeBackend("dns://s/" + zone, {"u", "file:/nonexistent"});
    EXPECT_TRUE(backend.ok()) << backend.status().reason;
    std::string reply;
    const std::string request = R"({"request":"ws_dnsupdate","seqno":1,"item":{"name":")" + name +
                                R"(","ipv6s":["2001:db8::1"],"httpsports":[)" + port + "]}}";
    return backend.ok() && (*backend)->updates()->apply(request, reply).code == rdbopen::errorBadRequest;
}

TEST_F(Check, ANameIsReportedExactlyWhenTheBackEndRefusesIt) {
    int refused = 0;
    for (const std::size_t length : {230U, 238U, 239U, 240U, 241U, 242U, 252U, 253U})
        for (const char* port : {"1", "80", "443", "8443", "18443"})
            for (const bool dotless : {false, true}) {
                const std::string zone = dotless ? nameOfLength(length - 2) : "example.org";
                const std::string name = dotless ? "h" : nameOfLength(length);
                const std::string settings = "hostname=" + name + "\ndnsurl=dns://s/" + zone +
                                             "\ndnsuser=u\ndnspswd=file:/nonexistent\ndnshttpsports=" + port + "\n";
                const std::string text = examined(settings).text();
                const bool remarked = text.find("so no update is sent") != std::string::npos;
                EXPECT_EQ(remarked, backEndRefuses(name, port, zone)) << text;
                refused += remarked ? 1 : 0;
            }
    EXPECT_GT(refused, 20);
}

TEST_F(Check, APasswordThatIsNotAKeySecretIsReported) {
    const auto examine = [this](const std::string& password) {
        return linesOf(examined("hostname=h\ndnsurl=dns://s/example.org\ndnsuser=u\ndnspswd=" + password));
    };
    const Lines remark = {"4 warning dnspswd is not the secret of a key in base64, so no update is sent"};
    EXPECT_EQ(examine("c2VjcmV0"), Lines{});
    EXPECT_EQ(examine("not base64!"), remark);
    const std::string file = folder.file("secret");
    writeFile(file, "c2VjcmV0\n");
    EXPECT_EQ(chmod(file.c_str(), 0600), 0);
    EXPECT_EQ(examine("file:" + file), Lines{});
    writeFile(file, "key host1 {\n");
    EXPECT_EQ(examine("file:" + file), remark);
}
#endif

TEST_F(Check, WithoutFilesInMemoryTheCheckIsNotPossible) {
    platform::hooks().ftruncate = [](int, off_t) { return -1; };
    CReport report;
    EXPECT_FALSE(checkBytes(base, report));
}

TEST_F(Check, TheInstalledFileIsUsedIfTheProgramsFolderHasNone) {
    const std::string beside = folder.file("addrpubd.ini");
    const std::string usual = folder.file("usual.ini");
    EXPECT_EQ(defaultPath(folder.path() + "/", usual), beside);
    writeFile(usual, "");
    EXPECT_EQ(defaultPath(folder.path() + "/", usual), usual);
    writeFile(beside, "");
    EXPECT_EQ(defaultPath(folder.path() + "/", usual), beside);
}

}  // namespace
