#include "engine/handle_table.h"

#include "open_fake_backend.h"

#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <set>
#include <sys/eventfd.h>

namespace {
std::atomic<bool> failEventfd{false};
}

extern "C" {
int __real_eventfd(unsigned count, int flags);
int __wrap_eventfd(unsigned count, int flags) {
    if (!failEventfd)
        return __real_eventfd(count, flags);
    errno = EMFILE;
    return -1;
}
}

namespace {

using namespace opentest;
using namespace rdbopen;

//  Destroys the handles that it created, even if a test fails.
class Handles {
public:
    ~Handles() {
        for (const int handle : all_)
            rdb_destory(handle);
    }
    int create() {
        const int handle = rdb_create();
        if (handle >= 0)
            all_.insert(handle);
        return handle;
    }

private:
    std::set<int> all_;
};

//  This test must run first, because a slot keeps the descriptor that it gets at its first use.
TEST(AHandleTable, ACreateWithoutADescriptorFails) {
    failEventfd = true;
    EXPECT_LT(rdb_create(), 0);
    failEventfd = false;
    Handles handles;
    EXPECT_GE(handles.create(), 0);
}

TEST(HandleTable, SixteenHandlesCanBeCreatedAndTheNextIsRefused) {
    Handles handles;
    std::set<int> given;
    for (int i = 0; i < handleCapacity; ++i)
        given.insert(handles.create());
    EXPECT_EQ(given.size(), 16U);
    EXPECT_GE(*given.begin(), 0);
    EXPECT_EQ(handles.create(), -1);
}

TEST(HandleTable, TheSlotOfAReleasedHandleIsReused) {
    Handles handles;
    for (int i = 0; i < handleCapacity - 1; ++i)
        handles.create();
    for (int i = 0; i < 100; ++i) {
        const int handle = rdb_create();
        ASSERT_GE(handle, 0);
        ASSERT_EQ(rdb_destory(handle), 0);
    }
}

TEST(HandleTable, EveryCallRefusesADestroyedHandle) {
    const int handle = rdb_create();
    ASSERT_EQ(rdb_destory(handle), 0);
    for (int reused = 0; reused < 2; ++reused) {
        RdbTag tag = tagNamed("t");
        const RdbSnapshot record = recordOf("t", "v");
        std::int32_t result = 0;
        EXPECT_EQ(rdb_setmessagenotify(handle, onEvent, nullptr), errorBadHandle);
        EXPECT_EQ(rdb_connectex(handle, "sqlite:///x", "u", "p", 0), errorBadHandle);
        EXPECT_EQ(rdb_callmsg(handle, "x", 1, onReply, nullptr), errorBadHandle);
        EXPECT_EQ(rdb_tagget(handle, &tag), errorBadHandle);
        EXPECT_EQ(rdb_taginport(handle, RDB_TAGINPORT_MODE, &tag, &result), errorBadHandle);
        EXPECT_EQ(rdb_objputsnapshot(handle, &record, 1), errorBadHandle);
        EXPECT_EQ(rdb_disconnect(handle), errorBadHandle);
        EXPECT_EQ(rdb_destory(handle), errorBadHandle);
        const int next = rdb_create();  // so the second pass follows a new use of the slot
        EXPECT_NE(next, handle);
        rdb_destory(next);
    }
}

TEST(HandleTable, NumbersThatWereNeverHandlesAreRefused) {
    for (const int handle : {-1, -2, INT32_MIN, INT32_MAX, 0x7ffffff0})
        EXPECT_EQ(rdb_disconnect(handle), errorBadHandle) << handle;
}

TEST(HandleTable, DisconnectMayBeRepeated) {
    Handles handles;
    const int handle = handles.create();
    EXPECT_EQ(rdb_disconnect(handle), 0);
    EXPECT_EQ(rdb_disconnect(handle), 0);
}

TEST(HandleTable, TheSlotOfAPinnedHandleIsNotReused) {
    const int handle = rdb_create();
    const PinnedHandle pin(handle);
    Worker* worker = pin.worker();
    rdb_destory(handle);
    Handles handles;
    for (int i = 0; i < handleCapacity - 1; ++i)
        EXPECT_NE(PinnedHandle(handles.create()).worker(), worker);
}

TEST(HandleTable, AFullTableWaitsForWorkersThatAreEnding) {
    std::vector<std::shared_ptr<Script>> scripts;
    for (int round = 0; round < 20 * handleCapacity; ++round) {
        const int handle = rdb_create();
        ASSERT_GE(handle, 0) << round;
        scripts.push_back(std::make_shared<Script>());
        ASSERT_EQ(connectFake(handle, scripts.back()), 0);
        rdb_disconnect(handle);
        rdb_destory(handle);
    }
}

std::ptrdiff_t mappings() {
    const std::string maps = readText("/proc/self/maps");
    return std::count(maps.begin(), maps.end(), '\n');
}

TEST(HandleTable, ThousandsOfRoundsLeakNoThreadDescriptorOrStack) {
    const auto script = std::make_shared<Script>();
    {
        Handles handles;  // from now on each slot has its descriptor
        for (int i = 0; i < handleCapacity; ++i)
            handles.create();
    }
    const std::size_t descriptors = entriesOf("/proc/self/fd");
    const std::ptrdiff_t mapped = mappings();
    for (int round = 0; round < 3000; ++round) {
        const int handle = rdb_create();
        ASSERT_GE(handle, 0) << round;
        ASSERT_EQ(connectFake(handle, script), 0);
        ASSERT_EQ(rdb_disconnect(handle), 0);
        ASSERT_EQ(rdb_destory(handle), 0);
    }
    EXPECT_TRUE(eventually([] { return entriesOf("/proc/self/task") <= 2; }));  // a sanitizer may run one more thread
    EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
    EXPECT_LT(mappings(), mapped + 500);  // each stack that is not freed has two mappings
}

TEST(HandleTable, MemoryOfAnEndedHandleIsFreedWhenItsSlotIsReused) {
    const auto script = std::make_shared<Script>();
    const std::weak_ptr<Script> seen = script;
    for (int round = 0; round < 3 * handleCapacity; ++round) {
        const int handle = rdb_create();
        ASSERT_EQ(connectFake(handle, script), 0);
        rdb_destory(handle);
    }
    EXPECT_LE(seen.use_count(), 1 + handleCapacity);
}

}  // namespace
