//  UDP log: opening it, and how a url sets the destination, the cabin and the level.
#include "udplog_fixture.h"

#include "level_model.h"
#include "olk_alloctor"

#include <cstddef>
#include <random>

#include <fcntl.h>

namespace {

TEST_F(UdpLog, ANewLogHasLevel30AndNoSocketDestinationOrCabin) {
    EXPECT_EQ(log.level, 30);
    EXPECT_EQ(log.getlevel(), 30);
    EXPECT_EQ(log.sock, -1);
    EXPECT_EQ(log.addrlen, 0u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(log.addr), sizeof log.addr), std::string(80, '\0'));
    EXPECT_EQ(log.cabin.length, 0u);
    EXPECT_STREQ(log.cabin.c_str(), "");
}

TEST_F(UdpLog, ItsFieldsAreInOrder) {
    const auto place = [this](const void* field) {
        return static_cast<const char*>(field) - reinterpret_cast<const char*>(&log);
    };
    EXPECT_EQ(place(&log.level), 8);
    EXPECT_EQ(place(&log.sock), 12);
    EXPECT_EQ(place(log.addr), 16);
    EXPECT_EQ(place(&log.addrlen), 96);
    EXPECT_EQ(place(&log.cabin), 100);
    EXPECT_EQ(sizeof log.addr, 80u);
    EXPECT_EQ(sizeof log.cabin.text, 128u);
    EXPECT_EQ(log.cabin.capacity, 128u);
    EXPECT_EQ(place(&log.cabin.length), 228);
    EXPECT_EQ(place(&log.cabin.capacity), 232);
}

TEST_F(UdpLog, AUrlSetsDestinationCabinAndLevel) {
    EXPECT_EQ(log.open("udp://192.0.2.10:5140/netsvc?level=dbg"), 0);
    EXPECT_EQ(destination(), "192.0.2.10 5140");
    EXPECT_STREQ(log.cabin.c_str(), "netsvc");
    EXPECT_EQ(log.level, 40);
}

TEST_F(UdpLog, WithoutAPortThePortIs999AndTheLevelIs30) {
    EXPECT_EQ(log.open("udp://192.0.2.10/netsvc"), 0);
    EXPECT_EQ(destination(), "192.0.2.10 999");
    EXPECT_EQ(log.level, 30);
}

TEST_F(UdpLog, APortThatWrapsTo0Is999) {
    EXPECT_EQ(log.open("udp://192.0.2.10:65536/netsvc"), 0);
    EXPECT_EQ(destination(), "192.0.2.10 999");
}

TEST_F(UdpLog, BlanksAreIgnoredAnywhere) {
    EXPECT_EQ(log.open("udp : //192.0.2.10:5140/ net svc"), 0);
    EXPECT_EQ(destination(), "192.0.2.10 5140");
    EXPECT_STREQ(log.cabin.c_str(), "netsvc");
    EXPECT_EQ(log.open("\tu dp://192.\t0.2.10:51 41/ net\tsvc ? le vel = d bg\t"), 0);
    EXPECT_EQ(destination(), "192.0.2.10 5141");
    EXPECT_EQ(log.level, 40);
}

TEST_F(UdpLog, ABracketedIpv6HostIsReachedOverIpv6) {
    EXPECT_EQ(log.open("udp://[2001:db8::5]:5140/netsvc"), 0);
    EXPECT_EQ(destination(), "2001:db8::5 5140");
    EXPECT_EQ(log.addrlen, 28u);
    EXPECT_EQ(sockets.calls.front(), "socket 10 2 17");
}

TEST_F(UdpLog, AnIpv4HostIsReachedOverIpv4) {
    EXPECT_EQ(log.open(usual), 0);
    EXPECT_EQ(log.addrlen, 16u);
    EXPECT_EQ(sockets.calls.front(), "socket 2 2 17");
}

TEST_F(UdpLog, AHostWithBothKindsOfAddressIsReachedOverIpv4) {
    EXPECT_EQ(log.open("udp://both.example/netsvc"), 0);
    EXPECT_EQ(destination(), "192.0.2.77 999");
}

TEST_F(UdpLog, AHostWithIpv6AddressesOnlyIsReachedOverIpv6) {
    EXPECT_EQ(log.open("udp://six.example/netsvc"), 0);
    EXPECT_EQ(destination(), "2001:db8::6 999");
}

TEST_F(UdpLog, TheSocketIsCloseOnExecAndHasASendBufferOf131072Bytes) {
    sockets.descriptor_flags = 4;
    EXPECT_EQ(log.open(usual), 0);
    EXPECT_EQ(log.sock, 1000);
    EXPECT_EQ(sockets.calls,
              (Calls{"socket 2 2 17", "fcntl 1000 1 0", "fcntl 1000 2 5", "setsockopt 1000 1 7 131072"}));
    EXPECT_EQ(Calls({"1 2 1", "1 7"}),
              Calls({std::to_string(F_GETFD) + " " + std::to_string(F_SETFD) + " " + std::to_string(FD_CLOEXEC),
                     std::to_string(SOL_SOCKET) + " " + std::to_string(SO_SNDBUF)}));
}

TEST_F(UdpLog, AFailingSendBufferOptionIsIgnored) {
    sockets.setsockopt_fails = true;
    EXPECT_EQ(log.open(usual), 0);
    EXPECT_EQ(log.sock, 1000);
}

TEST_F(UdpLog, FailingDescriptorFlagsAreIgnored) {
    sockets.fcntl_fails = true;
    EXPECT_EQ(log.open(usual), 0);
    EXPECT_EQ(log.sock, 1000);
}

TEST_F(UdpLog, WithoutASocketOpenFails) {
    sockets.socket_fails = true;
    EXPECT_EQ(log.open("udp://192.0.2.10:5140/netsvc?level=dbg"), -1);
    EXPECT_EQ(log.sock, -1);
    EXPECT_EQ(sockets.calls, Calls{"socket 2 2 17"});
    EXPECT_EQ(log.add(10, "x"), -1);
}

TEST_F(UdpLog, ReopeningClosesTheOldSocketWithoutShutdownBeforeTheNewOne) {
    log.open(usual);
    sockets.take_calls();
    EXPECT_EQ(log.open("udp://[2001:db8::5]:5140/netsvc"), 0);
    EXPECT_EQ(log.sock, 1001);
    const Calls calls = sockets.take_calls();
    EXPECT_EQ(Calls(calls.begin(), calls.begin() + 2), (Calls{"close 1000", "socket 10 2 17"}));
}

TEST_F(UdpLog, AFailedReopeningLeavesNoSocket) {
    log.open(usual);
    sockets.socket_fails = true;
    EXPECT_EQ(log.open(usual), -1);
    EXPECT_EQ(log.sock, -1);
}

TEST_F(UdpLog, AnOpenThatFailsBeforeTheSocketChangesNothing) {
    ASSERT_EQ(log.open("udp://192.0.2.10:5140/netsvc?level=dbg"), 0);
    sockets.take_calls();
    const char* const failing[] = {nullptr,
                                   "",
                                   " \t ",
                                   "udp://192.0.2.11:5141",
                                   "udp://192.0.2.11:5141/",
                                   "udp://192.0.2.11:5141/?level=err",
                                   "udp://192.0.2.11:5141?level=err",
                                   "udp://no.such.example/other?level=err",
                                   "udp://local.example/other?level=err",
                                   "udp:///other?level=err",
                                   "udp://[2001:db8::5]:/other?level=err",
                                   "udp://192.0.2.11/ \t ?level=err"};
    for (const char* url : failing) {
        SCOPED_TRACE(testing::PrintToString(url));
        EXPECT_EQ(log.open(url), -1);
        EXPECT_EQ(log.sock, 1000);
        EXPECT_EQ(destination(), "192.0.2.10 5140");
        EXPECT_STREQ(log.cabin.c_str(), "netsvc");
        EXPECT_EQ(log.level, 40);
        EXPECT_EQ(sockets.take_calls(), Calls{});
    }
}

TEST_F(UdpLog, AnAddressThatCannotBeConvertedKeepsTheOldDestinationAndItsFamily) {
    ASSERT_EQ(log.open("udp://[2001:db8::5]:5140/netsvc"), 0);
    sockets.take_calls();
    sockets.inet_pton_fails = true;
    EXPECT_EQ(log.open("udp://192.0.2.10:5141/other?level=dbg"), 0);
    EXPECT_EQ(destination(), "2001:db8::5 5140");
    EXPECT_EQ(sockets.calls[1], "socket 10 2 17");
    EXPECT_STREQ(log.cabin.c_str(), "other");
    EXPECT_EQ(log.level, 40);
    EXPECT_EQ(log.open("udp://[2001:db8::6]:5141/other"), 0);
    EXPECT_EQ(destination(), "2001:db8::5 5140");
}

TEST_F(UdpLog, AnAddressThatCannotBeConvertedRequestsASocketOfFamily0AtTheFirstOpen) {
    sockets.inet_pton_fails = true;
    EXPECT_EQ(log.open(usual), -1);
    EXPECT_EQ(sockets.calls, Calls{"socket 0 2 17"});
    EXPECT_EQ(destination(), "nowhere");
    EXPECT_EQ(log.sock, -1);
}

TEST_F(UdpLog, ACabinOf126CharactersIsUsedAndACabinOf127IsNot) {
    for (const std::size_t length : {1u, 125u, 126u, 127u, 128u, 129u, 5000u}) {
        SCOPED_TRACE(length);
        log.open(usual);
        const std::string path(length, 'c');
        EXPECT_EQ(log.open(("udp://192.0.2.10/" + path).c_str()), 0);
        EXPECT_EQ(log.cabin.c_str(), length <= 126 ? path : "");
        EXPECT_EQ(log.cabin.length, length <= 126 ? length : 0);
    }
}

TEST_F(UdpLog, AShorterCabinReplacesALongerOneCompletely) {
    log.open("udp://192.0.2.10/a-long-cabin");
    log.open("udp://192.0.2.10/ab");
    EXPECT_STREQ(log.cabin.c_str(), "ab");
}

TEST_F(UdpLog, ACabinWhoseLengthReachedTheCapacityLosesItsLastByte) {
    std::memset(log.cabin.text, 'c', sizeof log.cabin.text);
    log.cabin.length = 128;
    EXPECT_EQ(log.cabin.c_str(), std::string(127, 'c'));
    EXPECT_EQ(log.cabin.capacity, 128u);
}

TEST_F(UdpLog, ReadingACabinTerminatesIt) {
    std::memcpy(log.cabin.text, "netsvc", 6);
    log.cabin.length = 3;
    EXPECT_STREQ(log.cabin.c_str(), "net");
}

TEST_F(UdpLog, TheCabinIsTheWholePathWithItsSlashes) {
    EXPECT_EQ(log.open("udp://192.0.2.10//a/b/?level=dbg"), 0);
    EXPECT_STREQ(log.cabin.c_str(), "/a/b/");
}

TEST_F(UdpLog, TheLevelIsANameInAnyCase) {
    EXPECT_EQ(level_after("level=ALL"), 999);
    EXPECT_EQ(level_after("level=err"), 10);
    EXPECT_EQ(level_after("level=Wrn"), 20);
    EXPECT_EQ(level_after("level=inf"), 30);
    EXPECT_EQ(level_after("level=MSG"), 30);
    EXPECT_EQ(level_after("level=mor"), 31);
    EXPECT_EQ(level_after("LEVEL=dbg"), 40);
    EXPECT_EQ(level_after("Level=dbg"), 40);
}

TEST_F(UdpLog, TheLevelIsANumberOr30) {
    EXPECT_EQ(level_after("level=35"), 35);
    EXPECT_EQ(level_after("level=-1"), -1);
    EXPECT_EQ(level_after("level=40x"), 40);
    EXPECT_EQ(level_after("level=0"), 30);
    EXPECT_EQ(level_after("level=zero"), 30);
}

TEST_F(UdpLog, AnInvalidNumberResetsTheLevelTo30) {
    log.setlevel(10);
    EXPECT_EQ(log.open("udp://192.0.2.10/netsvc?level=zero"), 0);
    EXPECT_EQ(log.getlevel(), 30);
}

TEST_F(UdpLog, WithoutAReadableLevelInTheFirstParameterTheLevelStays) {
    for (const char* query : {"", "?", "?level=", "?level", "?level=&", "?x=1&level=dbg", "?=dbg", "?levels=dbg",
                              "?level=1234567890123456", "?a-key-of-16-char=1&level=dbg", "?&level=dbg"}) {
        SCOPED_TRACE(query);
        log.setlevel(17);
        EXPECT_EQ(log.open((std::string(usual) + query).c_str()), 0);
        EXPECT_EQ(log.getlevel(), 17);
    }
}

TEST_F(UdpLog, OnlyTheFirstParameterIsUsed) {
    EXPECT_EQ(level_after("x=1&level=dbg"), 30);
    EXPECT_EQ(level_after("level=dbg&level=err"), 40);
    EXPECT_EQ(level_after("level=dbg&x=1"), 40);
}

TEST_F(UdpLog, LeadingEmptyKeysAndValuesAreSkipped) {
    EXPECT_EQ(level_after("==level=dbg"), 40);
    EXPECT_EQ(level_after("level=&dbg"), 40);
    EXPECT_EQ(level_after("level=&&err&dbg"), 10);
}

TEST_F(UdpLog, AValueOf15CharactersIsReadAndAValueOf16EndsTheParsing) {
    EXPECT_EQ(level_after("level=000000000000031"), 31);
    EXPECT_EQ(level_after("level=0000000000000031"), 30);
}

TEST_F(UdpLog, CarriageReturnsInTheQueryAreIgnored) {
    EXPECT_EQ(level_after("le\rvel=d\rbg"), 40);
}

TEST_F(UdpLog, ALineFeedEndsTheQuery) {
    EXPECT_EQ(level_after("level=4\n0"), 4);
}

TEST_F(UdpLog, TheLevelAgreesWithItsModelOnGeneratedQueries) {
    const Calls pieces = {"level", "=", "&", "dbg", "ALL", "40", "-", "x", " ", "\t", "\r", "abcdefghij", "level="};
    std::mt19937 random(20250411);
    resolver.answers_literals = true;
    for (int i = 0; i < 100'000; ++i) {
        std::string query;
        for (auto left = random() % 8; left > 0; --left)
            query += pieces[random() % pieces.size()];
        std::string without_blanks = query;
        std::erase_if(without_blanks, [](char c) { return c == ' ' || c == '\t'; });
        log.setlevel(17);
        ASSERT_EQ(log.open((std::string(usual) + "?" + query).c_str()), 0);
        ASSERT_EQ(log.getlevel(), PairModel(without_blanks).level(17)) << testing::PrintToString(query);
        sockets.calls.clear();
    }
}

}  // namespace
