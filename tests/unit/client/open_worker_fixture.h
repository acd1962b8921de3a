//  A worker with a fake back end. While skipBackoff is true, the worker's waits with a time limit of at most
//  maxSkippedWait end at once and are only recorded. While expireWaits is true, a caller's wait times out at once, or
//  as soon as expireWhen returns true. The monotonic clock advances only when a test advances it.
#ifndef TESTS_UNIT_OPEN_WORKER_FIXTURE_H
#define TESTS_UNIT_OPEN_WORKER_FIXTURE_H

#include "open_fake_backend.h"

#include <functional>
#include <gtest/gtest.h>
#include <limits>

namespace opentest {

inline std::atomic<bool> skipBackoff{false};
inline std::atomic<int> maxSkippedWait{std::numeric_limits<int>::max()};  // ms; a longer wait is real
inline std::atomic<bool> workerWaits{false};                              // the worker is in a wait that is not skipped
inline std::atomic<bool> failThreads{false};
inline std::atomic<int> failPolls{0};  // number of next waits of a worker that fail
inline std::atomic<int> loseLines{0};  // number of next syslog lines that are lost
//  With a check interval of 60 s, the first check comes after 60 s, the first refresh in place of the ninth check.
inline constexpr std::uint32_t lateNumber = 539999;
inline std::atomic<std::uint32_t> randomNumber{lateNumber};  // what getrandom returns
inline std::atomic<int> trims{0};                            // calls of malloc_trim
inline std::atomic<bool> trimsOverlapped{false};             // two calls of malloc_trim ran at once
inline std::atomic<int> longSleeps{0};                       // sleeps of a second or more, which end at once
inline std::atomic<std::int64_t> clockAhead{0};              // s
inline Inbox<int> pauses;                                    // ms
inline Inbox<std::string> reports;                           // syslog texts
inline thread_local bool expireWaits = false;
inline thread_local std::function<bool()> expireWhen;  // an expiring wait first waits until this returns true
inline thread_local bool failNew = false;
inline thread_local std::int64_t waitLimit = 0;  // ms, time limit of this thread's last wait on a condition

class WorkerTest : public testing::Test {
protected:
    WorkerTest() : handle(rdb_create()), script(std::make_shared<Script>()) {
        skipBackoff = true;
        rdb_setmessagenotify(handle, onEvent, &events);
    }
    ~WorkerTest() override {
        script->hold = false;
        rdb_disconnect(handle);
        rdb_destory(handle);
        workersEnded();  // callbacks write to members, so they must have ended
        expireWaits = false;
        expireWhen = nullptr;
        clockAhead = 0;
        while (reports.count() > 0)
            reports.take();
        while (pauses.count() > 0)
            pauses.take();
    }
    void connect() {
        ASSERT_EQ(connectFake(handle, script), 0);
        ASSERT_EQ(events.take(), RDB_EVENT_CONNECTED);
    }
    //  Ends the worker, for tests whose callbacks write to local variables.
    void end() {
        rdb_destory(handle);
        ASSERT_TRUE(workersEnded());
    }
    //  Takes the next recorded pause. It must be the base of the back-off plus at most its random share.
    static void expectBackoff(int base) {
        const int pause = pauses.take();
        EXPECT_GE(pause, base);
        EXPECT_LE(pause, base * 5 / 4);
    }
    //  Advances the clock while the worker waits. So the worker notices the new time at the next call, not before.
    static void advance(int seconds) {
        ASSERT_TRUE(eventually([] { return workerWaits.load(); }));
        clockAhead += seconds;
    }
    int tagGet() {
        RdbTag tag = tagNamed("t");
        return rdb_tagget(handle, &tag);
    }
    int put(const std::string& value = "1") {
        const RdbSnapshot record = recordOf("t", value);
        return rdb_objputsnapshot(handle, &record, 1);
    }
    int import() {
        RdbTag tag = usableTag("t");
        std::int32_t result = 0;
        return rdb_taginport(handle, RDB_TAGINPORT_MODE, &tag, &result);
    }
    int send(const char* text) {
        return rdb_callmsg(handle, text, static_cast<std::int32_t>(std::strlen(text)), onReply, &replies);
    }

    int handle;
    std::shared_ptr<Script> script;
    Events events;
    Replies replies;
};

}  // namespace opentest

#endif
