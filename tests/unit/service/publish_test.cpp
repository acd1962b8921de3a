//  The steps of one publish cycle, and its effect on the next one.
#include "service_publish.h"

namespace {

using recording_rdb::every_call;
using recording_rdb::Function;
using recording_rdb::script_result;
using recording_rdb::script_tag_class;

using PublishCycle = PublishTest;
using ImportTag = PublishTest;

const std::string found = "rdb_tagget 0 host1";
const std::string imported = "rdb_taginport 0 host1";
const std::string imported_log = "30 rdb_taginport host1 success";
const std::string put = "rdb_objputsnapshot 0 host1=2001:db8::1";
const std::string put_log = "30 rdb_objputsnapshot host1 success,ipv6= 2001:db8::1";

TEST_F(PublishCycle, AlwaysStartsWithASleepOfATenthOfASecond) {
    run.publishOnce();
    connect(true, true);
    run.publishOnce();
    run.publishOnce();
    EXPECT_EQ(sleeps, (std::vector<std::pair<long, long>>(3, {0, 100'000'000})));
}

TEST_F(PublishCycle, WithBothConnectionsDownItOnlySleeps) {
    run.last_cycle_time = 77;
    EXPECT_EQ(cycle(start), Lines{});
    EXPECT_EQ(run.last_cycle_time, 77);
    EXPECT_EQ(clock_reads, 0);
    EXPECT_EQ(interfaces.asked, 0);
}

TEST_F(PublishCycle, ANewObjectPutsAndSendsInItsFirstCycle) {
    connect(true, true);
    EXPECT_EQ(cycle(start),
              (Lines{found, put, put_log,
                     R"(40 send: {"request":"ws_dnsupdate","seqno":1,"item":{"name":"host1","ipv6s":["2001:db8::1"],)"
                     R"("ipv6":"2001:db8::1","httpsports":[]}})",
                     R"(rdb_callmsg 1 {"request":"ws_dnsupdate","seqno":1,"item":{"name":"host1",)"
                     R"("ipv6s":["2001:db8::1"],"ipv6":"2001:db8::1","httpsports":[]}})"}));
}

TEST_F(PublishCycle, ReadsTheTimeAndTheAddressesOnce) {
    connect(true, true);
    cycle(start);
    EXPECT_EQ(clock_reads, 1);
    EXPECT_EQ(interfaces.asked, 1);
    EXPECT_EQ(interfaces.lists_out, 0);
}

TEST_F(PublishCycle, StoresTheMarksAndLists) {
    connect(true, true);
    cycle(start);
    EXPECT_EQ(run.last_cycle_time, start);
    EXPECT_EQ(run.address_list, "2001:db8::1");
    EXPECT_EQ(run.last_put_value, "2001:db8::1");
    EXPECT_EQ(run.last_sent_value, "2001:db8::1");
    EXPECT_EQ(run.snapshot.time, start * 10);
    EXPECT_EQ(run.last_sent_time, start);
}

TEST_F(PublishCycle, WithTheDnsServerDownOnlyTheRdbStepRuns) {
    connect(true, false);
    EXPECT_EQ(cycle(start), (Lines{found, put, put_log}));
    EXPECT_EQ(run.last_sent_time, 0);
    EXPECT_EQ(run.last_sent_value, "");
}

TEST_F(PublishCycle, WithTheRdbServerDownOnlyTheDnsStepRuns) {
    connect(false, true);
    EXPECT_EQ(requests(start), 1U);
    EXPECT_EQ(callsOf(Function::tagget).size(), 0U);
    EXPECT_EQ(run.last_put_value, "");
    EXPECT_EQ(run.snapshot.time, 0);
}

TEST_F(PublishCycle, WithoutADnsHandleNothingIsSent) {
    connect(true, true);
    run.dns_handle = -1;
    EXPECT_EQ(requests(start), 0U);
    EXPECT_EQ(run.last_sent_time, 0);
}

TEST_F(PublishCycle, ADnsHandleOf0IsValid) {
    connect(false, true);
    run.dns_handle = 0;
    EXPECT_EQ(requests(start), 1U);
}

TEST_F(PublishCycle, TheHandlesOfBothConnectionsAreUsed) {
    connect(true, true);
    run.rdb_handle = 21;
    run.dns_handle = 34;
    script_tag_class(Function::tagget, every_call, 0);
    cycle(start);
    EXPECT_EQ(callsOf(Function::tagget).at(0).handle, 21);
    EXPECT_EQ(callsOf(Function::taginport).at(0).handle, 21);
    EXPECT_EQ(callsOf(Function::objputsnapshot).at(0).handle, 21);
    EXPECT_EQ(callsOf(Function::callmsg).at(0).handle, 34);
}

TEST_F(PublishCycle, OneSnapshotIsPutAtATime) {
    connect(true, false);
    cycle(start);
    EXPECT_EQ(callsOf(Function::objputsnapshot).at(0).count, 1);
}

TEST_F(PublishCycle, WithoutAnInterfaceListNullIsPutAndNothingIsSent) {
    connect(true, true);
    interfaces.fails = true;
    EXPECT_EQ(cycle(start), (Lines{"10 get ipv6 address failed.", found, "rdb_objputsnapshot 0 host1=null",
                                   "30 rdb_objputsnapshot host1 success,ipv6= null"}));
    EXPECT_EQ(run.address_list, "null");
}

TEST_F(PublishCycle, WithoutAnAddressNullIsPutAndNothingIsSent) {
    connect(true, true);
    interfaces.set(Lines{"::1", "fe80::1"});
    EXPECT_EQ(cycle(start),
              (Lines{found, "rdb_objputsnapshot 0 host1=null", "30 rdb_objputsnapshot host1 success,ipv6= null"}));
}

TEST_F(PublishCycle, NullIsPutAgainOnlyAfter600Seconds) {
    connect(true, true);
    interfaces.set(Lines{});
    EXPECT_EQ(puts(start), 1U);
    EXPECT_EQ(puts(start + 599), 0U);
    EXPECT_EQ(puts(start + 610), 1U);
}

TEST_F(PublishCycle, ADifferentListAfterNullIsSentAtOnce) {
    connect(true, true);
    cycle(start);
    interfaces.set(Lines{});
    EXPECT_EQ(requests(start + 10), 0U);
    EXPECT_EQ(run.last_sent_value, "2001:db8::1");
    EXPECT_EQ(run.last_sent_time, start);
    interfaces.set(Lines{"2001:db8::2"});
    EXPECT_EQ(requests(start + 20), 1U);
}

TEST_F(PublishCycle, TheSameListAfterNullIsNotSentAgain) {
    connect(true, true);
    cycle(start);
    interfaces.set(Lines{});
    cycle(start + 10);
    interfaces.set(Lines{"2001:db8::1"});
    EXPECT_EQ(requests(start + 20), 0U);
    EXPECT_EQ(run.last_sent_time, start);
}

TEST_F(PublishCycle, AChangedListIsPutAndSentAtTheNextCycle) {
    connect(true, true);
    cycle(start);
    interfaces.set(Lines{"2001:db8::2", "2001:db8::1"});
    const Lines lines = cycle(start + 10);
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_EQ(lines[1], "rdb_objputsnapshot 0 host1=2001:db8::2,2001:db8::1");
}

TEST_F(PublishCycle, ADifferentOrderIsADifferentList) {
    connect(true, true);
    interfaces.set(Lines{"2001:db8::1", "2001:db8::2"});
    cycle(start);
    interfaces.set(Lines{"2001:db8::2", "2001:db8::1"});
    EXPECT_EQ(puts(start + 10), 1U);
}

TEST_F(PublishCycle, APrefixOfTheLastListIsADifferentList) {
    connect(true, true);
    interfaces.set(Lines{"2001:db8::1", "2001:db8::2"});
    cycle(start);
    interfaces.set(Lines{"2001:db8::1"});
    EXPECT_EQ(cycle(start + 10).size(), 5U);
}

TEST_F(PublishCycle, AMissingTagIsLoggedAndImportedBeforeThePut) {
    connect(true, false);
    script_result(Function::tagget, every_call, -77);
    EXPECT_EQ(cycle(start),
              (Lines{found, "10 rdb_tagget host1 failed, errcode -77", imported, imported_log, put, put_log}));
}

TEST_F(PublishCycle, ATagClassOtherThan2IsImportedWithoutAnErrorRecord) {
    connect(true, false);
    for (const int tag_class : {0, 1, 3, 130, 255}) {
        SCOPED_TRACE(tag_class);
        run.last_put_value.clear();
        script_tag_class(Function::tagget, every_call, tag_class);
        EXPECT_EQ(cycle(clock + 10), (Lines{found, imported, imported_log, put, put_log}));
    }
}

TEST_F(PublishCycle, AfterAFailedQueryTheTagIsImported) {
    connect(true, false);
    script_result(Function::tagget, every_call, 5);
    script_tag_class(Function::tagget, every_call, 2);
    EXPECT_EQ(cycle(start).size(), 6U);
}

TEST_F(PublishCycle, AFailedImportEndsTheCycleWithoutAPutAndWithoutTheDnsStep) {
    connect(true, true);
    script_tag_class(Function::tagget, every_call, 1);
    script_result(Function::taginport, every_call, 9);
    EXPECT_EQ(cycle(start), (Lines{found, imported, "10 rdb_taginport host1 failed, errcode 9"}));
    EXPECT_EQ(run.last_put_value, "");
    EXPECT_EQ(run.snapshot.time, 0);
    EXPECT_EQ(run.last_sent_time, 0);
    EXPECT_EQ(run.last_cycle_time, start);
}

TEST_F(PublishCycle, AfterAFailedImportTheNextCycleQueriesAndImportsAgain) {
    connect(true, true);
    script_result(Function::tagget, 0, 4);
    script_result(Function::tagget, 1, 4);
    script_result(Function::taginport, 0, 9);
    cycle(start);
    EXPECT_EQ(cycle(start + 9), Lines{});
    const Lines lines = cycle(start + 10);
    ASSERT_GE(lines.size(), 6U);
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + 6),
              (Lines{found, "10 rdb_tagget host1 failed, errcode 4", imported, imported_log, put, put_log}));
    EXPECT_EQ(callsOf(Function::callmsg).size(), 1U);
}

TEST_F(PublishCycle, AClassThatIsStillNot2IsImportedASecondTime) {
    connect(true, false);
    script_tag_class(Function::tagget, every_call, 1);
    script_tag_class(Function::taginport, 0, 7);
    EXPECT_EQ(cycle(start), (Lines{found, imported, imported_log, imported, imported_log, put, put_log}));
}

TEST_F(PublishCycle, ThereIsNoThirdImport) {
    connect(true, false);
    script_tag_class(Function::tagget, every_call, 1);
    script_tag_class(Function::taginport, every_call, 7);
    EXPECT_EQ(cycle(start), (Lines{found, imported, imported_log, imported, imported_log, put, put_log}));
}

TEST_F(PublishCycle, TheResultOfTheSecondImportIsIgnored) {
    connect(true, false);
    script_tag_class(Function::tagget, every_call, 1);
    script_tag_class(Function::taginport, 0, 7);
    script_result(Function::taginport, 1, 3);
    EXPECT_EQ(cycle(start), (Lines{found, imported, imported_log, imported, "10 rdb_taginport host1 failed, errcode 3",
                                   put, put_log}));
}

TEST_F(PublishCycle, AFailedPutIsLoggedAndCountsAsDone) {
    connect(true, true);
    script_result(Function::objputsnapshot, 0, -5);
    const Lines lines = cycle(start);
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_EQ(lines[2], "10 rdb_objputsnapshot host1 failed, errcode -5");
    EXPECT_EQ(run.last_put_value, "2001:db8::1");
    EXPECT_EQ(run.snapshot.time, start * 10);
}

TEST_F(PublishCycle, AFailedPutIsNotRetriedBefore600Seconds) {
    connect(true, false);
    script_result(Function::objputsnapshot, 0, 5);
    EXPECT_EQ(puts(start), 1U);
    EXPECT_EQ(cycle(start + 10), Lines{});
    EXPECT_EQ(cycle(start + 599), Lines{});
    EXPECT_EQ(puts(start + 609), 1U);
}

TEST_F(PublishCycle, AFailedPutIsRetriedAfterAReconnection) {
    connect(true, false);
    script_result(Function::objputsnapshot, 0, 5);
    cycle(start);
    onRdbEvent(60001, 0, &run);
    EXPECT_EQ(puts(start + 10), 1U);
}

TEST_F(PublishCycle, AFailedPutIsRetriedWhenTheListChanges) {
    connect(true, false);
    script_result(Function::objputsnapshot, 0, 5);
    cycle(start);
    interfaces.set(Lines{"2001:db8::9"});
    EXPECT_EQ(puts(start + 10), 1U);
}

TEST_F(PublishCycle, AFailedRequestIsLoggedAndCountsAsSent) {
    connect(false, true);
    script_result(Function::callmsg, 0, 13);
    const Lines lines = cycle(start);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[2], "10 updateDomain errorcode 13");
    EXPECT_EQ(run.last_sent_time, start);
    EXPECT_EQ(run.last_sent_value, "2001:db8::1");
    EXPECT_EQ(requests(start + 10), 0U);
    EXPECT_EQ(requests(start + 599), 0U);
    EXPECT_EQ(requests(start + 609), 1U);
}

TEST_F(PublishCycle, PublishesTheSameWithoutALog) {
    connect(true, true);
    run.log = nullptr;
    interfaces.fails = true;
    script_result(Function::tagget, every_call, 1);
    script_result(Function::taginport, 0, 1);
    script_result(Function::objputsnapshot, 0, 1);
    script_result(Function::callmsg, 0, 1);
    EXPECT_EQ(cycle(start), (Lines{found, imported}));
    EXPECT_EQ(cycle(start + 10), (Lines{found, imported, "rdb_objputsnapshot 0 host1=null"}));
    interfaces.fails = false;
    EXPECT_EQ(cycle(start + 20).size(), 4U);
    interfaces.set(Lines{"2001:db8::2"});
    EXPECT_EQ(cycle(start + 30).size(), 4U);
}

TEST_F(ImportTag, ReturnsTrueAndLogsAtLevel30OnResult0) {
    RdbTag tag;
    EXPECT_TRUE(run.importTag(tag));
    EXPECT_EQ(trace.take(), (Lines{imported, imported_log}));
}

TEST_F(ImportTag, ReturnsFalseAndLogsAtLevel10OnOtherResults) {
    for (const int result : {1, -1, 60003, INT32_MIN}) {
        script_result(Function::taginport, every_call, result);
        RdbTag tag;
        EXPECT_FALSE(run.importTag(tag));
        EXPECT_EQ(trace.take(), (Lines{imported, "10 rdb_taginport host1 failed, errcode " + std::to_string(result)}));
    }
}

TEST_F(ImportTag, PassesMode16AndAnIntegerThatStartsAt0) {
    RdbTag tag;
    run.importTag(tag);
    EXPECT_EQ(callsOf(Function::taginport).at(0).mode, 16);
    EXPECT_EQ(callsOf(Function::taginport).at(0).result_before, 0);
}

}  // namespace
