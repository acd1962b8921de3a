//  The contents of the state file that the workers write.
#include "engine/state_board.h"
#include "engine/state_file.h"
#include "open_worker_fixture.h"

namespace {

using namespace rdbopen;
using namespace opentest;

//  One folder for all tests of WorkerState, because the library chooses its folder once.
const Folder& stateFolder() {
    static const Folder folder;
    static const bool chosen = (stateFile.chooseFolder(folder.path().c_str()), true);
    (void)chosen;
    return folder;
}

struct WorkerState : WorkerTest {
    WorkerState() : path(stateFolder().file("state")) {}
    std::string text() const { return readText(path); }
    bool has(const std::string& line) const { return text().find("\n" + line) != std::string::npos; }
    bool eventuallyHas(const std::string& line) const {
        return eventually([&] { return has(line); });
    }
    std::string successLine() const {
        const std::string whole = text();
        const std::size_t at = whole.find("\nsuccess ");
        return whole.substr(at, whole.find('\n', at + 1) - at);
    }

    const std::string path;
};

TEST_F(WorkerState, AServerThatWasNeverReachedIsNamed) {
    script->opens = {backendFailed("no route")};
    maxSkippedWait = 0;
    ASSERT_EQ(connectFake(handle, script), 0);
    EXPECT_TRUE(eventuallyHas("phase waiting\n"));
    EXPECT_TRUE(has("server any\nlabel fake\n"));
    EXPECT_TRUE(has("failure "));
    EXPECT_NE(text().find(" 1014 no route\n"), std::string::npos);
    EXPECT_TRUE(has("next open "));
    maxSkippedWait = std::numeric_limits<int>::max();
}

TEST_F(WorkerState, AConnectionIsWritten) {
    connect();
    EXPECT_TRUE(eventuallyHas("phase connected\n"));
    EXPECT_TRUE(has("connections 1\n"));
}

TEST_F(WorkerState, APutIsPublished) {
    connect();
    ASSERT_EQ(put("::1"), 0);
    EXPECT_TRUE(eventuallyHas("published "));
    EXPECT_NE(text().find(" t ::1\n"), std::string::npos);
}

TEST_F(WorkerState, ARefusedPutIsPending) {
    maxSkippedWait = 0;
    connect();
    script->requests = {serverRefused("read only")};
    ASSERT_EQ(put("::1"), errorServerRefused);
    EXPECT_TRUE(eventuallyHas("pending t ::1\n"));
    EXPECT_TRUE(has("refusals 1\n"));
    EXPECT_TRUE(has("next retry "));
    maxSkippedWait = std::numeric_limits<int>::max();
}

TEST_F(WorkerState, ARetryIsCounted) {
    connect();
    script->requests = {serverRefused("read only")};
    ASSERT_EQ(put("::1"), errorServerRefused);
    EXPECT_TRUE(eventuallyHas("retries 1\n"));
    EXPECT_TRUE(eventuallyHas("published "));
}

TEST_F(WorkerState, ARepetitionWithoutAnExchangeIsNoSuccess) {
    script->checkSeconds = 3600;
    maxSkippedWait = 0;
    connect();
    ASSERT_EQ(put("::1"), 0);
    ASSERT_TRUE(eventuallyHas("success "));
    const std::string before = successLine();
    const auto start = momentNow().boot;
    eventually([start] { return momentNow().boot > start; });
    ASSERT_EQ(put("::1"), 0);
    EXPECT_EQ(script->served, 1);
    script->requests = {serverRefused("no")};
    ASSERT_EQ(send("x"), 0);
    replies.take();
    ASSERT_TRUE(eventuallyHas("failure "));
    EXPECT_EQ(successLine(), before);
    maxSkippedWait = std::numeric_limits<int>::max();
}

//  A repetition of the published value replaces the rejected one, so the next check is a success again.
TEST_F(WorkerState, ARejectedValueThatIsWithdrawnIsNoLongerAFailure) {
    script->checkSeconds = 60;
    maxSkippedWait = 0;
    connect();
    ASSERT_EQ(put("::1"), 0);
    ASSERT_TRUE(eventuallyHas("success "));
    const std::string before = successLine();
    script->requests = {{errorBadRequest, "too long"}};
    ASSERT_EQ(put("::2"), errorBadRequest);
    ASSERT_TRUE(eventuallyHas("failure "));
    ASSERT_EQ(put("::1"), 0);
    EXPECT_EQ(script->served, 2);
    advance(60);
    ASSERT_EQ(put("::1"), 0);  // wakes the worker
    EXPECT_TRUE(eventually([&] { return successLine() != before; }));
    maxSkippedWait = std::numeric_limits<int>::max();
}

TEST_F(WorkerState, ClosingTheLastHandleRemovesTheFile) {
    connect();
    ASSERT_TRUE(eventuallyHas("phase connected\n"));
    rdb_disconnect(handle);
    EXPECT_FALSE(std::filesystem::exists(path));
    end();
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(WorkerState, AClosedHandleIsRemovedFromTheFile) {
    connect();
    const int other = rdb_create();
    ASSERT_EQ(connectFake(other, std::make_shared<Script>()), 0);
    const auto servers = [this] {
        const std::string whole = text();
        return whole.find("server ") == whole.rfind("server ") ? 1 : 2;
    };
    ASSERT_TRUE(eventually([&] { return servers() == 2; }));
    rdb_destory(other);
    EXPECT_TRUE(eventually([&] { return has("server ") && servers() == 1; }));
}

//  The thread sanitizer reports a data race if the second thread uses paths that the first may still be writing. The
//  threads are ordered by a relaxed flag, because it does not hide such a race.
TEST(StateFolder, ChosenOnOneThreadIsUsedOnAnother) {
    const Folder folder;
    StateFile file;
    std::atomic<bool> chosen{false};
    std::thread first([&] {
        file.chooseFolder(folder.path().c_str());
        chosen.store(true, std::memory_order_relaxed);
    });
    while (!chosen.load(std::memory_order_relaxed))
        std::this_thread::yield();
    file.chooseFolder(nullptr);
    file.connectionOpened();
    file.write("text");
    EXPECT_EQ(readText(folder.file("state")), "text");
    first.join();
    file.connectionClosed();
}

TEST_F(WorkerState, AThreadThatCannotBeStartedLeavesNoConnection) {
    failThreads = true;
    EXPECT_EQ(connectFake(handle, script), errorNoResources);
    failThreads = false;
    connect();
    ASSERT_TRUE(eventuallyHas("phase connected\n"));
    rdb_disconnect(handle);
    EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
