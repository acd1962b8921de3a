//  UDP log: records, and destruction of the log. Opening is tested in olk_udplog_open_test.cpp.
#include "udplog_fixture.h"

#include <climits>
#include <cstdio>
#include <thread>

namespace {

bool snprintf_fails = false;

class OpenUdpLog : public UdpLog {
protected:
    OpenUdpLog() {
        log.open(usual);
        sockets.take_calls();
    }

    std::string add(int level, const std::string& text) {
        log.add(level, "%s", text.c_str());
        return sockets.take_datagram().bytes;
    }
    //  Number of bytes that add() sends before the text of a record of level 30.
    static constexpr std::size_t header = 45;
};

TEST_F(OpenUdpLog, AddSendsTheHeaderLineAndTheText) {
    EXPECT_EQ(log.add(30, "x=%d", 5), 48);
    const std::string bytes = sockets.take_datagram().bytes;
    EXPECT_EQ(bytes, "{\"order\":\"wlog\",\"level\":30,\"cabin\":\"netsvc\"}\nx=5");
    EXPECT_EQ(bytes.size(), 48u);
}

TEST_F(OpenUdpLog, AppendSendsTheOrderAppend) {
    EXPECT_EQ(log.append(30, "%s", "more"), 51);
    EXPECT_EQ(sockets.take_datagram().bytes, "{\"order\":\"append\",\"level\":30,\"cabin\":\"netsvc\"}\nmore");
}

TEST_F(OpenUdpLog, PushSendsTheTagInBracketsBeforeTheText) {
    EXPECT_EQ(push(10, "rdb", "lost"), 54);
    EXPECT_EQ(sockets.take_datagram().bytes, "{\"order\":\"wlog\",\"level\":10,\"cabin\":\"netsvc\"}\n[rdb]lost");
}

TEST_F(OpenUdpLog, PushWithoutATagIsLikeAdd) {
    for (const char* tag : {static_cast<const char*>(nullptr), ""}) {
        push(10, tag, "lost %d", 2);
        EXPECT_EQ(sockets.take_datagram().bytes, "{\"order\":\"wlog\",\"level\":10,\"cabin\":\"netsvc\"}\nlost 2");
    }
}

TEST_F(OpenUdpLog, TheHeaderCarriesTheRecordsLevelNotTheConfiguredOne) {
    log.setlevel(999);
    EXPECT_EQ(add(-7, ""), "{\"order\":\"wlog\",\"level\":-7,\"cabin\":\"netsvc\"}\n");
    EXPECT_EQ(add(40, ""), "{\"order\":\"wlog\",\"level\":40,\"cabin\":\"netsvc\"}\n");
    EXPECT_EQ(add(INT_MIN, ""), "{\"order\":\"wlog\",\"level\":-2147483648,\"cabin\":\"netsvc\"}\n");
}

TEST_F(OpenUdpLog, NothingIsEscaped) {
    log.open("udp://192.0.2.10/a\"b\\c");
    EXPECT_EQ(add(30, "\"quoted\"\n\\\xff"),
              "{\"order\":\"wlog\",\"level\":30,\"cabin\":\"a\"b\\c\"}\n\"quoted\"\n\\\xff");
}

TEST_F(OpenUdpLog, WithoutACabinItsQuotesAreEmpty) {
    log.open(("udp://192.0.2.10/" + std::string(127, 'c')).c_str());
    EXPECT_EQ(add(30, "x"), "{\"order\":\"wlog\",\"level\":30,\"cabin\":\"\"}\nx");
}

TEST_F(OpenUdpLog, AnEmptyTextIsSent) {
    EXPECT_EQ(log.add(30, "%s", ""), static_cast<int>(header));
}

TEST_F(OpenUdpLog, ARecordGoesToTheDestinationWithoutWaiting) {
    log.add(30, "x");
    const Datagram datagram = sockets.take_datagram();
    EXPECT_EQ(datagram.fd, log.sock);
    EXPECT_EQ(datagram.flags, MSG_DONTWAIT);
    EXPECT_TRUE(datagram.addressed);
    EXPECT_EQ(destination_of(datagram.destination.data(), datagram.destination.size()), "192.0.2.10 5140");
}

TEST_F(OpenUdpLog, AnIpv6DestinationIsPassedWhole) {
    log.open("udp://[2001:db8::5]:5140/netsvc");
    log.append(30, "x");
    const Datagram datagram = sockets.take_datagram();
    EXPECT_EQ(destination_of(datagram.destination.data(), datagram.destination.size()), "2001:db8::5 5140");
    EXPECT_EQ(datagram.destination_length, 28u);
}

TEST_F(OpenUdpLog, WithoutADestinationSendtoGetsNoAddress) {
    log.addrlen = 0;
    log.add(30, "x");
    const Datagram datagram = sockets.take_datagram();
    EXPECT_FALSE(datagram.addressed);
    EXPECT_EQ(datagram.destination_length, 0u);
}

TEST_F(OpenUdpLog, ARecordAtTheConfiguredLevelIsSentAndOneAboveItIsNot) {
    EXPECT_GT(log.add(30, "x"), 0);
    EXPECT_EQ(log.add(31, "x"), 0);
    EXPECT_EQ(log.append(40, "x"), 0);
    EXPECT_EQ(push(31, "t", "x"), 0);
    EXPECT_EQ(sockets.sent.size(), 1u);
}

TEST_F(OpenUdpLog, ANegativeLevelDropsRecordsOfLevels0And10) {
    log.setlevel(-1);
    EXPECT_EQ(log.add(0, "x"), 0);
    EXPECT_EQ(log.add(10, "x"), 0);
    EXPECT_GT(log.add(-1, "x"), 0);
}

TEST_F(OpenUdpLog, SetlevelTakesAnyValue) {
    for (const int level : {INT_MIN, -1, 0, 35, 1000, INT_MAX}) {
        log.setlevel(level);
        EXPECT_EQ(log.getlevel(), level);
        EXPECT_EQ(log.level, level);
    }
}

TEST_F(OpenUdpLog, ARecordOf30719BytesIsSentWholeAndALongerOneNotAtAll) {
    const std::string text(30719 - header, 't');
    EXPECT_EQ(log.add(30, "%s", text.c_str()), 30719);
    EXPECT_EQ(sockets.take_datagram().bytes.substr(header), text);
    for (const std::size_t longer : {1u, 2u, 100u, 100'000u}) {
        EXPECT_EQ(log.add(30, "%s%s", text.c_str(), std::string(longer, 't').c_str()), -1) << longer;
        EXPECT_EQ(log.append(30, "%s%s", text.c_str(), std::string(longer, 't').c_str()), -1) << longer;
    }
    EXPECT_TRUE(sockets.sent.empty());
}

TEST_F(OpenUdpLog, ATagIsPartOfTheRecordsLength) {
    const std::string tag(30719 - header - 2, 'g');
    EXPECT_EQ(push(30, tag.c_str(), "%s", ""), 30719);
    EXPECT_EQ(push(30, tag.c_str(), "%s", "x"), -1);
    EXPECT_EQ(push(30, (tag + "g").c_str(), "%s", ""), -1);
    EXPECT_EQ(push(30, std::string(100'000, 'g').c_str(), "%s", ""), -1);
    EXPECT_EQ(sockets.sent.size(), 1u);
}

TEST_F(OpenUdpLog, ATextThatCannotBeFormattedIsNotSent) {
    EXPECT_EQ(log.add(30, "%lc", static_cast<wint_t>(0xd800)), -1);
    EXPECT_TRUE(sockets.sent.empty());
}

TEST_F(OpenUdpLog, ARecordWhoseTagCannotBeWrittenIsNotSent) {
    snprintf_fails = true;
    EXPECT_EQ(push(30, "tag", "%s", "x"), -1);
    snprintf_fails = false;
    EXPECT_TRUE(sockets.sent.empty());
}

TEST_F(OpenUdpLog, AFailedSendLosesTheRecordAndChangesNothing) {
    sockets.sendto_fails = true;
    EXPECT_EQ(log.add(30, "x"), -1);
    EXPECT_EQ(sockets.sent.size(), 1u);
    EXPECT_EQ(sockets.take_calls(), Calls{});
    sockets.sendto_fails = false;
    EXPECT_EQ(log.add(30, "x"), static_cast<int>(header) + 1);
    EXPECT_EQ(sockets.sent.size(), 2u);
}

TEST_F(UdpLog, WithoutASocketEveryRecordFailsWhateverItsLevel) {
    EXPECT_EQ(log.add(10, "x"), -1);
    EXPECT_EQ(log.add(999, "x"), -1);
    EXPECT_EQ(log.append(10, "x"), -1);
    EXPECT_EQ(push(10, "t", "x"), -1);
    EXPECT_TRUE(sockets.sent.empty());
}

TEST_F(OpenUdpLog, NothingIsAllocatedForARecord) {
    sockets.forgets = true;
    const std::string text(20'000, 'x');
    const long before = FakeSockets::requests();
    const int sent = log.add(30, "%s", text.c_str());
    log.append(30, "%d", 5);
    push(30, "tag", "%s", text.c_str());
    log.add(40, "%d", 5);
    EXPECT_EQ(FakeSockets::requests(), before);
    EXPECT_EQ(sent, static_cast<int>(header + text.size()));
}

TEST_F(OpenUdpLog, RecordsOfSeveralThreadsStayWhole) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([this, t] {
            const std::string text(1000, static_cast<char>('a' + t));
            for (int i = 0; i < 200; ++i)
                log.add(10 + t, "%s", text.c_str());
        });
    for (std::thread& thread : threads)
        thread.join();
    ASSERT_EQ(sockets.sent.size(), 800u);
    for (const Datagram& datagram : sockets.sent) {
        const char letter = datagram.bytes.back();
        EXPECT_EQ(datagram.bytes, "{\"order\":\"wlog\",\"level\":" + std::to_string(10 + letter - 'a') +
                                      ",\"cabin\":\"netsvc\"}\n" + std::string(1000, letter));
    }
}

TEST_F(OpenUdpLog, RuntimeDoesNothing) {
    log.runtime();
    EXPECT_EQ(sockets.take_calls(), Calls{});
    EXPECT_EQ(log.sock, 1000);
}

TEST_F(UdpLog, DestructionShutsTheSocketDownInBothDirectionsAndClosesIt) {
    auto* const ending = new olk::udplog;
    ending->open(usual);
    sockets.take_calls();
    ending->release();
    EXPECT_EQ(sockets.take_calls(), (Calls{"shutdown 1000 2", "close 1000"}));
}

TEST_F(UdpLog, DestructionWithoutASocketClosesNothing) {
    (new olk::udplog)->release();
    EXPECT_EQ(sockets.take_calls(), Calls{});
}

}  // namespace

extern "C" int __wrap_snprintf(char* text, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(text, size, format, args);
    va_end(args);
    return snprintf_fails ? -1 : length;
}
