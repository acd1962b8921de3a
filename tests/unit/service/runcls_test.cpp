//  The start of the service object, with its failures; the choice of the log; and destruction.
#include "runcls.h"

#include "recording_rdb.h"
#include "service_platform.h"
#include "service_support.h"

#include "olk_prtlog.h"
#include "olk_udplog.h"

#include <cerrno>
#include <cstring>
#include <optional>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <gtest/gtest.h>

namespace {

using recording_rdb::Function;

constexpr char both[] = "logurl=stdout\nhostname=h1\nrdburl=rdb://r\nrdbuser=ru\nrdbpswd=rp\n"
                        "dnsurl=dns://d\ndnsuser=du\ndnspswd=dp\n";

//  The ini file is in a folder of the test. Console records are compared without their time stamps.
class ServiceStart : public testing::Test {
protected:
    ServiceStart() {
        platform::reset();
        recording_rdb::reset();
        run.emplace();
        platform::hooks().readlink = [this](const char*, char* target, std::size_t size) {
            const std::string program = folder.file("addrpubd");
            EXPECT_LE(program.size(), size);
            std::memcpy(target, program.data(), program.size());
            return static_cast<ssize_t>(program.size());
        };
        //  Every name resolves to one address. The UDP log gets no socket, so that this process sends nothing.
        platform::hooks().getaddrinfo = [](const char*, addrinfo** list) {
            static sockaddr_in address = {AF_INET, 0, {htonl(0xC0000201)}, {}};
            static addrinfo entry = {0, AF_INET, SOCK_DGRAM, 0, sizeof address, nullptr, nullptr, nullptr};
            entry.ai_addr = reinterpret_cast<sockaddr*>(&address);
            *list = &entry;
            return 0;
        };
        platform::hooks().socket = [this](int, int, int) {
            ++sockets;
            return -1;
        };
    }
    ~ServiceStart() override {
        run.reset();
        platform::reset();
        recording_rdb::reset();
    }

    //  Starts the service with this ini file. Afterwards `records` contains the lines of the console log, such as "inf
    //  text".
    bool startWith(const std::string& ini) {
        writeFile(iniPath, ini);
        return start();
    }
    bool start() {
        const StdoutCapture out;
        const bool started = run->start();
        std::string text = out.text();
        records.clear();
        printed = text;
        for (std::size_t at = text.find("] ["); at != std::string::npos;) {
            const std::size_t next = text.find("] [", at + 3);
            const std::size_t end = next == std::string::npos ? text.size() : text.rfind('[', next);
            std::string record = text.substr(at + 3, end - at - 3);
            record.erase(3, 1);  // the bracket after the name of the level
            while (!record.empty() && record.back() == '\n')
                record.pop_back();
            records.push_back(record);
            at = next;
        }
        return started;
    }
    static Lines callsMade() {
        Lines lines;
        for (const auto& call : recording_rdb::calls())
            lines.push_back(std::string(recording_rdb::name_of(call.function)) + " " + std::to_string(call.handle));
        return lines;
    }

    const TempFolder folder;
    const std::string iniPath = folder.file("addrpubd.ini");
    std::optional<CRunCls> run;
    Lines records;
    std::string printed;
    int sockets = 0;
};

using ServiceLog = ServiceStart;
using ServiceEnd = ServiceStart;

const std::string first = "inf \n\tstart addrpubd...";
const std::string last = "inf addrpubd service started successfully.";

TEST_F(ServiceStart, OpensBothConnectionsAndReportsEachStep) {
    EXPECT_TRUE(startWith(both));
    EXPECT_EQ(records, (Lines{first, "inf rdburl: rdb://r", "inf dnsurl: dns://d", last}));
    EXPECT_EQ(callsMade(), (Lines{"rdb_create 0", "rdb_setmessagenotify 0", "rdb_connectex 0", "rdb_create 1",
                                  "rdb_setmessagenotify 1", "rdb_connectex 1"}));
    EXPECT_EQ(run->rdb_handle, 0);
    EXPECT_EQ(run->dns_handle, 1);
}

TEST_F(ServiceStart, RegistersACallbackForEachConnectionWithTheObject) {
    startWith(both);
    const auto calls = recording_rdb::calls_of(Function::setmessagenotify);
    EXPECT_EQ(calls.at(0).callback, reinterpret_cast<std::uintptr_t>(&onRdbEvent));
    EXPECT_EQ(calls.at(1).callback, reinterpret_cast<std::uintptr_t>(&onDnsEvent));
    EXPECT_EQ(calls.at(0).user, reinterpret_cast<std::uintptr_t>(&*run));
    EXPECT_EQ(calls.at(1).user, reinterpret_cast<std::uintptr_t>(&*run));
}

TEST_F(ServiceStart, ConnectsEachServerWithItsUrlUserAndPassword) {
    startWith(both);
    const auto calls = recording_rdb::calls_of(Function::connectex);
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ((Lines{calls[0].url, calls[0].account, calls[0].password}), (Lines{"rdb://r", "ru", "rp"}));
    EXPECT_EQ((Lines{calls[1].url, calls[1].account, calls[1].password}), (Lines{"dns://d", "du", "dp"}));
    EXPECT_EQ(calls[0].reserved, 0);
    EXPECT_EQ(calls[1].reserved, 0);
}

TEST_F(ServiceStart, DoesNotSetTheConnectedFlags) {
    startWith(both);
    EXPECT_EQ(run->rdb_connected, 0U);
    EXPECT_EQ(run->dns_connected, 0U);
}

TEST_F(ServiceStart, AMissingIniFileIsPrintedAndFails) {
    EXPECT_FALSE(start());
    EXPECT_EQ(printed, "Load " + iniPath + " failed.\n");
    EXPECT_EQ(run->log, nullptr);
    EXPECT_EQ(callsMade(), Lines{});
}

TEST_F(ServiceStart, WithoutAnExecutablePathItReadsTheIniFileInTheWorkingDirectory) {
    platform::hooks().readlink = [](const char*, char*, std::size_t) { return -1; };
    std::string opened;
    platform::hooks().fopen = [&](const char* path, const char*) {
        opened = path;
        return nullptr;
    };
    EXPECT_FALSE(start());
    EXPECT_EQ(opened, "addrpubd.ini");
    EXPECT_EQ(printed, "Load addrpubd.ini failed.\n");
}

TEST_F(ServiceStart, AnEmptyHostNameFails) {
    EXPECT_FALSE(startWith("logurl=stdout\nhostname=\nrdburl=a\nrdbuser=b\nrdbpswd=c\n"));
    EXPECT_EQ(records, (Lines{first, "err not config hostname in " + iniPath}));
    EXPECT_EQ(callsMade(), Lines{});
}

TEST_F(ServiceStart, AnEmptyFileOrADirectoryFailsSilently) {
    EXPECT_FALSE(startWith(""));
    EXPECT_EQ(printed, "");
    run.emplace();
    platform::hooks().fopen = [this](const char*, const char* mode) {
        return platform::real_fopen(folder.path().c_str(), mode);
    };
    EXPECT_FALSE(start());
    EXPECT_EQ(printed, "");
}

TEST_F(ServiceStart, EachIllegalCharacterOfAHostNameFailsAnywhere) {
    for (const char c : {'\'', '"', '(', ')', ':', '\0'}) {
        const std::string bad(1, c);
        for (const std::string& name : {bad, bad + "x", "x" + bad, "x" + bad + "y"}) {
            run.emplace();
            EXPECT_FALSE(startWith("logurl=stdout\nhostname=" + name + "\n"));
            EXPECT_EQ(records, (Lines{first, "err hostname contains illegal characters in " + iniPath})) << name;
        }
    }
}

TEST_F(ServiceStart, EveryOtherByteAtTheEndOfAHostNameIsLegal) {
    for (int c = 1; c < 256; ++c) {
        if (std::strchr("'\"():;#\r\n\t ", c) != nullptr)
            continue;
        run.emplace();
        EXPECT_TRUE(startWith("logurl=stdout\nhostname=x" + std::string(1, static_cast<char>(c)) + "\n")) << c;
    }
    run.emplace();
    EXPECT_TRUE(startWith("logurl=stdout\nhostname=my host\n"));
}

TEST_F(ServiceStart, StartsWithoutAConfiguredServer) {
    EXPECT_TRUE(startWith("logurl=stdout\nhostname=h\n"));
    EXPECT_EQ(records, (Lines{first, "inf rdburl: not config.", "inf dnsurl: not config.", last}));
    EXPECT_EQ(callsMade(), Lines{});
    EXPECT_EQ(run->rdb_handle, -1);
    EXPECT_EQ(run->dns_handle, -1);
}

TEST_F(ServiceStart, AnRdbServerWithoutOneOfItsThreeKeysIsNotUsed) {
    for (const char* partial : {"rdburl=a\nrdbuser=b\n", "rdburl=a\nrdbpswd=c\n", "rdbuser=b\nrdbpswd=c\n"}) {
        run.emplace();
        EXPECT_TRUE(startWith(std::string("logurl=stdout\nhostname=h\n") + partial));
        EXPECT_EQ(records, (Lines{first, "inf rdburl: not config.", "inf dnsurl: not config.", last})) << partial;
        EXPECT_EQ(run->rdb_handle, -1);
    }
    EXPECT_EQ(callsMade(), Lines{});
}

TEST_F(ServiceStart, ADnsServerWithoutOneOfItsThreeKeysIsNotUsed) {
    for (const char* partial : {"dnsurl=a\ndnsuser=b\n", "dnsurl=a\ndnspswd=c\n", "dnsuser=b\ndnspswd=c\n"}) {
        run.emplace();
        EXPECT_TRUE(startWith(std::string("logurl=stdout\nhostname=h\n") + partial));
        EXPECT_EQ(records, (Lines{first, "inf rdburl: not config.", "inf dnsurl: not config.", last})) << partial;
        EXPECT_EQ(run->dns_handle, -1);
    }
    EXPECT_EQ(callsMade(), Lines{});
}

TEST_F(ServiceStart, TheDnsConnectionMayGetHandle0) {
    EXPECT_TRUE(startWith("logurl=stdout\nhostname=h\ndnsurl=a\ndnsuser=b\ndnspswd=c\n"));
    EXPECT_EQ(callsMade(), (Lines{"rdb_create 0", "rdb_setmessagenotify 0", "rdb_connectex 0"}));
    EXPECT_EQ(run->dns_handle, 0);
}

TEST_F(ServiceStart, ANegativeRdbHandleFails) {
    recording_rdb::script_result(Function::create, 0, -3);
    EXPECT_FALSE(startWith(both));
    EXPECT_EQ(records, (Lines{first, "inf rdburl: rdb://r", "err rdb_create failed"}));
    EXPECT_EQ(callsMade(), Lines{"rdb_create -3"});
}

TEST_F(ServiceStart, ARefusedRdbConnectionFreesItsHandleAndFails) {
    for (const int code : {1, -1}) {
        recording_rdb::reset();
        recording_rdb::script_result(Function::connectex, 0, code);
        run.emplace();
        EXPECT_FALSE(startWith(both));
        EXPECT_EQ(records,
                  (Lines{first, "inf rdburl: rdb://r", "err rdb_connectex rdb://r asynchronous connection failed"}));
        EXPECT_EQ(callsMade(), (Lines{"rdb_create 0", "rdb_setmessagenotify 0", "rdb_connectex 0", "rdb_destory 0"}));
        EXPECT_EQ(run->rdb_handle, -1);
    }
}

TEST_F(ServiceStart, ANegativeDnsHandleFailsAndLeavesTheRdbConnectionOpen) {
    recording_rdb::script_result(Function::create, 1, -1);
    EXPECT_FALSE(startWith(both));
    EXPECT_EQ(records, (Lines{first, "inf rdburl: rdb://r", "inf dnsurl: dns://d",
                              "err create DNS Server connect dns://d failed"}));
    EXPECT_EQ(callsMade(), (Lines{"rdb_create 0", "rdb_setmessagenotify 0", "rdb_connectex 0", "rdb_create -1"}));
    EXPECT_EQ(run->rdb_handle, 0);
}

TEST_F(ServiceStart, ARefusedDnsConnectionFreesOnlyItsOwnHandle) {
    for (const int code : {7, -7}) {
        run.emplace();
        recording_rdb::reset();
        recording_rdb::script_result(Function::connectex, 1, code);
        EXPECT_FALSE(startWith(both));
        EXPECT_EQ(records, (Lines{first, "inf rdburl: rdb://r", "inf dnsurl: dns://d",
                                  "err connectex dns://d asynchronous connection failed"}));
        EXPECT_EQ(callsMade(), (Lines{"rdb_create 0", "rdb_setmessagenotify 0", "rdb_connectex 0", "rdb_create 1",
                                      "rdb_setmessagenotify 1", "rdb_connectex 1", "rdb_destory 1"}));
        EXPECT_EQ(run->rdb_handle, 0);
        EXPECT_EQ(run->dns_handle, -1);
    }
}

TEST_F(ServiceStart, TheResultOfSetMessageNotifyIsIgnored) {
    recording_rdb::script_result(Function::setmessagenotify, recording_rdb::every_call, -1);
    EXPECT_TRUE(startWith(both));
}

TEST_F(ServiceStart, AnEventDuringTheConnectionAttemptIsHandled) {
    recording_rdb::script_event(Function::connectex, 0, 60001);
    EXPECT_TRUE(startWith(both));
    EXPECT_EQ(run->rdb_connected, 1U);
}

TEST_F(ServiceStart, WithoutMemoryForTheLogItFailsWithoutALog) {
    platform::hooks().pool_refuses = [](std::size_t) { return true; };
    EXPECT_FALSE(startWith(both));
    EXPECT_EQ(printed, "");
    EXPECT_EQ(callsMade(), Lines{});
}

struct LogRow {
    std::string logurl;
    bool udp;
    bool prints;
};

TEST_F(ServiceLog, TheSchemeOfLogurlSelectsTheLog) {
    const LogRow rows[] = {
        {"", false, false},
        {"stdout", false, true},
        {"STDOUT", false, true},
        {"StdOut", false, true},
        {"stdout:", false, false},
        {"/var/log/addrpubd.log", false, false},
        {"tcp://192.0.2.1/x", false, false},
        {"udp", false, false},
        {"udp://192.0.2.1:5140/netsvc", true, false},
        {"UDP://192.0.2.1/netsvc", true, false},
        {"udp:", true, false},
        {"udp/", true, false},
        {"udp :x", true, false},
        {"udp\t \t/x", true, false},
        {"//:/ udp:x", true, false},
        {"u dp:x", false, false},
        {"udpx://192.0.2.1/x", false, false},
        {"udp4://192.0.2.1/x", false, false},
        {"abcdefghijklmno:udp:", false, false},
        {"abcdefghijklmnop:udp:", false, false},
    };
    for (const LogRow& row : rows) {
        SCOPED_TRACE(row.logurl);
        run.emplace();
        EXPECT_TRUE(startWith("hostname=h\nlogurl=" + row.logurl + "\n"));
        EXPECT_EQ(dynamic_cast<olk::udplog*>(run->log) != nullptr, row.udp);
        EXPECT_EQ(dynamic_cast<olk::prtlog*>(run->log) != nullptr, !row.udp);
        EXPECT_EQ(run->log->getlevel(), row.udp ? 30 : 40);
        EXPECT_EQ(printed.empty(), !row.prints);
    }
}

//  The ini reader never returns such values, because it removes leading blanks and line ends.
TEST_F(ServiceLog, LeadingBlanksAndLineEndsOfTheSchemeAreSkipped) {
    for (const std::string logurl : {" \tudp://192.0.2.1/x", "\r\nudp://192.0.2.1/x", "u\rd\np://192.0.2.1/x"}) {
        run.emplace();
        run->logurl = logurl;
        EXPECT_TRUE(startWith("hostname=h\n"));
        EXPECT_NE(dynamic_cast<olk::udplog*>(run->log), nullptr) << testing::PrintToString(logurl);
    }
}

TEST_F(ServiceLog, ALogThatCannotBeOpenedDoesNotStopTheStart) {
    EXPECT_TRUE(startWith("hostname=h\nlogurl=udp://192.0.2.1:5140/netsvc?level=dbg\n"));
    EXPECT_GE(sockets, 1);
    EXPECT_TRUE(startWith("hostname=h\nlogurl=udp:not an address\n"));
}

TEST_F(ServiceLog, IsStoredAfterItIsOpen) {
    Lines seen;
    platform::hooks().socket = [&](int, int, int) {
        seen.emplace_back(run->log == nullptr ? "no log while it is opened" : "a log while it is opened");
        return -1;
    };
    EXPECT_TRUE(startWith("hostname=h\nlogurl=udp://192.0.2.1:5140/netsvc\n"));
    EXPECT_EQ(seen, Lines{"no log while it is opened"});
    EXPECT_NE(dynamic_cast<olk::udplog*>(run->log), nullptr);
}

TEST_F(ServiceLog, IsAllocatedFromThePoolAndFreed) {
    const long before = platform::pool_blocks;
    startWith("hostname=h\n");
    EXPECT_EQ(platform::pool_blocks, before + 1);
    run.reset();
    EXPECT_EQ(platform::pool_blocks, before);
}

TEST_F(ServiceEnd, ReleasesTheLogAndClosesOnlyTheRdbConnection) {
    Trace trace;
    RecordingLog log(trace);
    run->log = &log;
    run->rdb_handle = 5;
    run->dns_handle = 6;
    run.reset();
    EXPECT_EQ(log.released, 1);
    EXPECT_EQ(callsMade(), (Lines{"rdb_disconnect 5", "rdb_destory 5"}));
}

TEST_F(ServiceEnd, AHandleOf0IsClosed) {
    run->rdb_handle = 0;
    run.reset();
    EXPECT_EQ(callsMade(), (Lines{"rdb_disconnect 0", "rdb_destory 0"}));
}

TEST_F(ServiceEnd, TheLogIsReleasedBeforeTheConnectionIsClosed) {
    Trace trace;
    RecordingLog log(trace);
    int released_before = -1;
    recording_rdb::set_observer([&](const recording_rdb::Call&) {
        if (released_before == -1)
            released_before = log.released;
    });
    run->log = &log;
    run->rdb_handle = 5;
    run.reset();
    EXPECT_EQ(released_before, 1);
}

TEST_F(ServiceEnd, ANewObjectCallsNothing) {
    run.reset();
    EXPECT_EQ(callsMade(), Lines{});
}

TEST_F(ServiceEnd, FreesThePortList) {
    const long before = platform::pool_blocks;
    parsePortList("1,2,3", run->dnshttpsports);
    run.reset();
    EXPECT_EQ(platform::pool_blocks, before);
}

}  // namespace
