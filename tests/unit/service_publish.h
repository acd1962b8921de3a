//  A service object with a log, two connections, a clock and interfaces that a test sets as it likes. What the cycle
//  does to the client library and to the log is one trace, in order.
#ifndef SERVICE_PUBLISH_H
#define SERVICE_PUBLISH_H

#include "recording_rdb.h"
#include "runcls.h"
#include "service_support.h"

#include <gtest/gtest.h>

//  "rdb_tagget 0 host1", "rdb_taginport 0 host1", "rdb_objputsnapshot 0 host1=value", "rdb_callmsg 1 text".
std::string lineOf(const recording_rdb::Call& call);

class PublishTest : public testing::Test {
protected:
    PublishTest();
    ~PublishTest() override;

    //  One pass at second now: what it did.
    Lines cycle(time_t now);
    //  How many puts or requests that pass made.
    std::size_t puts(time_t now);
    std::size_t requests(time_t now);

    void connect(bool to_rdb, bool to_dns);
    static std::vector<recording_rdb::Call> callsOf(recording_rdb::Function function);

    static constexpr int rdb = 0;
    static constexpr int dns = 1;
    static constexpr time_t start = 1'744'350'000;

    Trace trace;
    RecordingLog log{trace};
    CRunCls run;
    FakeInterfaces interfaces;
    time_t clock = start;
    int clock_reads = 0;
    std::vector<std::pair<long, long>> sleeps;  // seconds, nanoseconds
};

#endif
