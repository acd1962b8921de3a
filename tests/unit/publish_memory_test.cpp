//  What a cycle takes from the pool, and what it gives back.
#include "service_platform.h"
#include "service_publish.h"

namespace {

class CycleMemory : public PublishTest {
protected:
    //  Requests to the pool during one pass.
    long requestsDuring(time_t now) {
        clock = now;
        const long before = platform::pool_requests;
        run.publishOnce();
        return platform::pool_requests - before;
    }
};

TEST_F(CycleMemory, AnIdlePassTakesNothing) {
    EXPECT_EQ(requestsDuring(start), 0);
    connect(true, true);
    requestsDuring(start);
    EXPECT_EQ(requestsDuring(start + 5), 0);
    EXPECT_EQ(requestsDuring(start + 10), 0);
}

TEST_F(CycleMemory, APutWithImportsTakesNothing) {
    connect(true, false);
    recording_rdb::script_tag_class(recording_rdb::Function::tagget, recording_rdb::every_call, 1);
    recording_rdb::script_tag_class(recording_rdb::Function::taginport, recording_rdb::every_call, 1);
    EXPECT_EQ(requestsDuring(start), 0);
}

TEST_F(CycleMemory, ARequestTakesItsTextsAndGivesThemAllBack) {
    connect(true, true);
    interfaces.set(Lines{"1::1"});
    const long blocks = platform::pool_blocks;
    for (time_t now = start; now < start + 60000; now += 600) {
        //  One address: its text, the list of them, the name, and the request.
        EXPECT_EQ(requestsDuring(now), 4);
        EXPECT_EQ(platform::pool_blocks, blocks);
    }
}

TEST_F(CycleMemory, EveryInterfaceListIsFreed) {
    connect(true, true);
    for (time_t now = start; now < start + 6000; now += 10) {
        interfaces.fails = now % 70 == 0;
        cycle(now);
    }
    EXPECT_EQ(interfaces.lists_out, 0);
    EXPECT_EQ(interfaces.wrong_frees, 0);
}

}  // namespace
