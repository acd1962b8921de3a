//  A service object with a log and two connections; the test sets the clock and the interfaces. Calls of the client
//  library and log records are in one trace, in order.
#ifndef SERVICE_PUBLISH_H
#define SERVICE_PUBLISH_H

#include "recording_rdb.h"
#include "runcls.h"
#include "service_support.h"

#include <gtest/gtest.h>

//  Returns a call as text: "rdb_tagget 0 host1", "rdb_taginport 0 host1", "rdb_objputsnapshot 0 host1=value",
//  "rdb_callmsg 1 text".
std::string lineOf(const recording_rdb::Call& call);

class PublishTest : public testing::Test {
protected:
    PublishTest();
    ~PublishTest() override;

    //  Runs one pass at the time `now`. Returns its trace.
    Lines cycle(time_t now);
    //  Runs one pass at the time `now`. Returns the number of its puts or requests.
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
