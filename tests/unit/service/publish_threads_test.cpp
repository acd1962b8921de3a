//  The client library delivers events and replies on its own threads during the cycle. The thread sanitizer detects
//  data races. Its list of exceptions (tests/support/tsan.supp) contains only the four functions that write the flags
//  and marks which the cycle reads without a lock.
#include "service_publish.h"

#include <atomic>
#include <functional>
#include <thread>

namespace {

class PublishThreads : public PublishTest {
protected:
    //  Runs cycles until the other thread ends, but at least 200 cycles.
    void cycleBeside(const std::function<void()>& other) {
        std::atomic<bool> through{false};
        std::thread thread([&] {
            other();
            through = true;
        });
        for (int i = 0; i < 200 || !through; ++i) {
            clock += 10;
            run.publishOnce();
        }
        thread.join();
    }
};

TEST_F(PublishThreads, EventsFromBothServersMayArriveDuringTheCycle) {
    cycleBeside([] {
        for (int i = 0; i < 500; ++i) {
            recording_rdb::fire_event(rdb, i % 3 == 2 ? 60003 : 60001);
            recording_rdb::fire_event(dns, i % 5 == 4 ? 60003 : 60001);
        }
    });
    recording_rdb::fire_event(rdb, 60001);
    recording_rdb::fire_event(dns, 60001);
    EXPECT_EQ(cycle(clock + 10).size(), 5U);
}

TEST_F(PublishThreads, RepliesMayArriveDuringTheCycle) {
    connect(true, true);
    cycle(clock + 10);
    cycleBeside([] {
        for (int i = 0; i < 200; ++i)
            EXPECT_TRUE(recording_rdb::fire_reply("{\"result\":0}"));
    });
}

TEST_F(PublishThreads, TheNextCycleSeesAnEventDuringAPut) {
    connect(true, false);
    recording_rdb::script_hold(recording_rdb::Function::objputsnapshot, 0);
    std::thread library([] {
        ASSERT_TRUE(recording_rdb::wait_held(60000));
        recording_rdb::fire_event(rdb, 60003);
        recording_rdb::release_held();
    });
    cycle(start);
    library.join();
    EXPECT_EQ(run.rdb_connected, 0U);
    EXPECT_EQ(cycle(start + 600), Lines{});
}

}  // namespace
