//  The memory that a cycle takes and frees again, and a cycle without memory.
#include "no_memory.h"
#include "service_platform.h"
#include "service_publish.h"

#include <cstdio>
#include <optional>

namespace {

class CycleMemory : public PublishTest {
protected:
    //  Returns the number of requests to the pool during one pass.
    long requestsDuring(time_t now) {
        clock = now;
        const long before = platform::pool_requests;
        run.publishOnce();
        return platform::pool_requests - before;
    }
};

TEST_F(CycleMemory, AnIdlePassTakesNothingFromThePool) {
    EXPECT_EQ(requestsDuring(start), 0);
    connect(true, true);
    requestsDuring(start);
    EXPECT_EQ(requestsDuring(start + 5), 0);
    EXPECT_EQ(requestsDuring(start + 10), 0);
}

TEST_F(CycleMemory, APutWithImportsTakesNothingFromThePool) {
    connect(true, false);
    recording_rdb::script_tag_class(recording_rdb::Function::tagget, recording_rdb::every_call, 1);
    recording_rdb::script_tag_class(recording_rdb::Function::taginport, recording_rdb::every_call, 1);
    EXPECT_EQ(requestsDuring(start), 0);
}

TEST_F(CycleMemory, ARequestFreesAllItsTexts) {
    connect(true, true);
    interfaces.set(Lines{"1::1"});
    const long blocks = platform::pool_blocks;
    for (time_t now = start; now < start + 60000; now += 600) {
        //  The four requests for one address are its text, the list, the name and the request.
        EXPECT_EQ(requestsDuring(now), 4);
        EXPECT_EQ(platform::pool_blocks, blocks);
    }
}

TEST_F(CycleMemory, ACycleWithoutMemoryIsRepeatedByTheNextOne) {
    connect(true, false);
    interfaces.set(Lines{"2001:db8:1:2:3:4:5:6"});
    std::optional<NoMemory> refused;
    platform::hooks().inet_ntop = [&refused](int, const void*, char* text, socklen_t size) -> const char* {
        std::snprintf(text, size, "2001:db8:1:2:3:4:5:6");
        refused.emplace();
        return text;
    };
    clock = start;
    run.publishOnce();
    refused.reset();
    platform::hooks().inet_ntop = nullptr;
    EXPECT_EQ(trace.take(), Lines{});
    EXPECT_EQ(interfaces.lists_out, 0);
    EXPECT_EQ(puts(start + 9), 0U);
    EXPECT_EQ(puts(start + 10), 1U);
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
