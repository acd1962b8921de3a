#include "service_publish.h"

#include <cstring>

namespace {

using recording_rdb::fire_event;
using recording_rdb::fire_event_from_thread;
using recording_rdb::fire_reply;

using RdbEvent = PublishTest;
using DnsEvent = PublishTest;
using DnsReply = PublishTest;

TEST_F(RdbEvent, AConnectionSetsTheFlagAndClearsTheMarkAndIsLogged) {
    run.snapshot.time = 42;
    onRdbEvent(60001, 0, &run);
    EXPECT_EQ(run.rdb_connected, 1U);
    EXPECT_EQ(run.snapshot.time, 0);
    EXPECT_EQ(trace.take(), Lines{"30 connect rdb server rdb://server success."});
}

TEST_F(RdbEvent, AConnectionKeepsTheStateOfTheDnsServer) {
    run.last_sent_time = 42;
    onRdbEvent(60001, 0, &run);
    EXPECT_EQ(run.dns_connected, 0U);
    EXPECT_EQ(run.last_sent_time, 42);
}

TEST_F(RdbEvent, ALossClearsTheFlagButKeepsTheMarkAndIsLoggedAtLevel10) {
    connect(true, true);
    run.snapshot.time = 42;
    onRdbEvent(60003, 0, &run);
    EXPECT_EQ(run.rdb_connected, 0U);
    EXPECT_EQ(run.dns_connected, 1U);
    EXPECT_EQ(run.snapshot.time, 42);
    EXPECT_EQ(trace.take(), Lines{"10 rdb server rdb://server disconnected."});
}

TEST_F(RdbEvent, ARepeatedLossIsLoggedAgain) {
    onRdbEvent(60003, 0, &run);
    onRdbEvent(60003, 0, &run);
    EXPECT_EQ(trace.take(), Lines(2, "10 rdb server rdb://server disconnected."));
    EXPECT_EQ(run.rdb_connected, 0U);
}

TEST_F(RdbEvent, OtherCodesChangeAndLogNothing) {
    for (const std::uint32_t connected : {0U, 1U}) {
        for (const std::int32_t code : {0, 1, -1, 60000, 60002, 60004, -60001, INT32_MIN, INT32_MAX}) {
            run.rdb_connected = connected;
            run.snapshot.time = 42;
            onRdbEvent(code, 60001, &run);
            EXPECT_EQ(run.rdb_connected, connected);
            EXPECT_EQ(run.snapshot.time, 42);
        }
    }
    EXPECT_EQ(trace.take(), Lines{});
}

TEST_F(RdbEvent, TheSecondValueIsNotUsed) {
    for (const std::int64_t value : {std::int64_t{60003}, INT64_MIN, INT64_MAX}) {
        run.rdb_connected = 0;
        onRdbEvent(60001, value, &run);
        EXPECT_EQ(run.rdb_connected, 1U);
    }
}

TEST_F(RdbEvent, WithoutALogItIsIgnored) {
    run.log = nullptr;
    run.snapshot.time = 42;
    onRdbEvent(60001, 0, &run);
    EXPECT_EQ(run.rdb_connected, 0U);
    EXPECT_EQ(run.snapshot.time, 42);
    run.rdb_connected = 1;
    onRdbEvent(60003, 0, &run);
    EXPECT_EQ(run.rdb_connected, 1U);
}

TEST_F(RdbEvent, AfterAConnectionTheNextCyclePutsAnUnchangedList) {
    connect(true, false);
    cycle(start);
    onRdbEvent(60001, 0, &run);
    EXPECT_EQ(puts(start + 9), 0U);
    EXPECT_EQ(puts(start + 10), 1U);
    EXPECT_EQ(puts(start + 20), 0U);
}

TEST_F(RdbEvent, EachRepeatedConnectionForcesOneMorePut) {
    connect(true, false);
    cycle(start);
    for (time_t now = start + 10; now < start + 50; now += 10) {
        onRdbEvent(60001, 0, &run);
        EXPECT_EQ(puts(now), 1U);
    }
}

TEST_F(RdbEvent, ALossLeavesTheDnsStepRunning) {
    connect(true, true);
    onRdbEvent(60003, 0, &run);
    EXPECT_EQ(requests(start), 1U);
    EXPECT_EQ(callsOf(recording_rdb::Function::tagget).size(), 0U);
}

TEST_F(RdbEvent, AfterBothServersDisconnectTheCycleDoesNothing) {
    connect(true, true);
    onRdbEvent(60003, 0, &run);
    onDnsEvent(60003, 0, &run);
    EXPECT_EQ(cycle(start), Lines{});
    EXPECT_EQ(run.last_cycle_time, 0);
}

TEST_F(RdbEvent, ArrivesThroughTheRegisteredCallback) {
    EXPECT_TRUE(fire_event(run.rdb_handle, 60001));
    EXPECT_EQ(run.rdb_connected, 1U);
    EXPECT_TRUE(fire_event_from_thread(run.rdb_handle, 60003));
    EXPECT_EQ(run.rdb_connected, 0U);
}

TEST_F(RdbEvent, ThePutOverwritesTheMarkThatAConnectionClearedDuringIt) {
    connect(true, false);
    recording_rdb::script_event(recording_rdb::Function::objputsnapshot, 0, 60001);
    cycle(start);
    EXPECT_EQ(run.snapshot.time, start * 10);
}

TEST_F(DnsEvent, AConnectionSetsTheFlagAndClearsTheTimeAndIsLogged) {
    run.last_sent_time = 42;
    onDnsEvent(60001, 0, &run);
    EXPECT_EQ(run.dns_connected, 1U);
    EXPECT_EQ(run.last_sent_time, 0);
    EXPECT_EQ(trace.take(), Lines{"30 connect dns server dns://server success."});
}

TEST_F(DnsEvent, AConnectionKeepsTheStateOfTheRdbServer) {
    run.snapshot.time = 42;
    onDnsEvent(60001, 0, &run);
    EXPECT_EQ(run.rdb_connected, 0U);
    EXPECT_EQ(run.snapshot.time, 42);
}

TEST_F(DnsEvent, ALossClearsTheFlagButKeepsTheTimeAndIsLoggedAtLevel10) {
    connect(true, true);
    run.last_sent_time = 42;
    onDnsEvent(60003, 0, &run);
    EXPECT_EQ(run.dns_connected, 0U);
    EXPECT_EQ(run.rdb_connected, 1U);
    EXPECT_EQ(run.last_sent_time, 42);
    EXPECT_EQ(trace.take(), Lines{"10 dns server dns://server disconnected."});
}

TEST_F(DnsEvent, ARepeatedLossIsLoggedAgain) {
    onDnsEvent(60003, 0, &run);
    onDnsEvent(60003, 0, &run);
    EXPECT_EQ(trace.take(), Lines(2, "10 dns server dns://server disconnected."));
}

TEST_F(DnsEvent, OtherCodesChangeAndLogNothing) {
    for (const std::uint32_t connected : {0U, 1U}) {
        for (const std::int32_t code : {0, 1, -1, 60000, 60002, 60004, -60001, INT32_MIN, INT32_MAX}) {
            run.dns_connected = connected;
            run.last_sent_time = 42;
            onDnsEvent(code, 60001, &run);
            EXPECT_EQ(run.dns_connected, connected);
            EXPECT_EQ(run.last_sent_time, 42);
        }
    }
    EXPECT_EQ(trace.take(), Lines{});
}

TEST_F(DnsEvent, WithoutALogItIsIgnored) {
    run.log = nullptr;
    run.last_sent_time = 42;
    onDnsEvent(60001, 0, &run);
    EXPECT_EQ(run.dns_connected, 0U);
    EXPECT_EQ(run.last_sent_time, 42);
    run.dns_connected = 1;
    onDnsEvent(60003, 0, &run);
    EXPECT_EQ(run.dns_connected, 1U);
}

TEST_F(DnsEvent, AfterAConnectionTheNextCycleSendsAnUnchangedList) {
    connect(false, true);
    cycle(start);
    onDnsEvent(60001, 0, &run);
    EXPECT_EQ(requests(start + 9), 0U);
    EXPECT_EQ(requests(start + 10), 1U);
    EXPECT_EQ(requests(start + 20), 0U);
}

TEST_F(DnsEvent, ALossLeavesTheRdbStepRunning) {
    connect(true, true);
    onDnsEvent(60003, 0, &run);
    EXPECT_EQ(puts(start), 1U);
    EXPECT_EQ(callsOf(recording_rdb::Function::callmsg).size(), 0U);
}

TEST_F(DnsEvent, ArrivesThroughTheRegisteredCallback) {
    EXPECT_TRUE(fire_event_from_thread(run.dns_handle, 60001));
    EXPECT_EQ(run.dns_connected, 1U);
    EXPECT_EQ(run.rdb_connected, 0U);
}

TEST_F(DnsReply, AReplyIsLoggedAtLevel40UpToItsLength) {
    connect(false, true);
    cycle(start);
    //  The byte after each of these texts cannot be read: reading it crashes.
    for (const std::string text : {"{\"result\":0}", "x", ""}) {
        ASSERT_TRUE(fire_reply(text));
        EXPECT_EQ(trace.take(), Lines{"40 recv: " + text});
    }
}

TEST_F(DnsReply, AReplyOfOnePageIsLoggedCompletely) {
    connect(false, true);
    cycle(start);
    const std::string text(4096, 'r');
    ASSERT_TRUE(recording_rdb::fire_reply_from_thread(text));
    EXPECT_EQ(trace.take(), Lines{"40 recv: " + text});
}

TEST_F(DnsReply, OnlyTheGivenLengthIsLogged) {
    onDnsReply("abcdef", 3, &run);
    EXPECT_EQ(trace.take(), Lines{"40 recv: abc"});
}

TEST_F(DnsReply, AReplyChangesNoState) {
    connect(true, true);
    cycle(start);
    const RdbSnapshot before = run.snapshot;
    onDnsReply("{\"errcode\":-1}", 14, &run);
    EXPECT_EQ(std::memcmp(&before, &run.snapshot, sizeof before), 0);
    EXPECT_EQ(run.last_sent_time, start);
    EXPECT_EQ(run.last_sent_value, "2001:db8::1");
    EXPECT_EQ(run.seqno, 1);
    EXPECT_EQ(run.dns_connected, 1U);
}

TEST_F(DnsReply, WithoutALogItIsIgnored) {
    run.log = nullptr;
    onDnsReply("abc", 3, &run);
    EXPECT_EQ(trace.take(), Lines{});
}

}  // namespace
