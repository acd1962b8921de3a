//  Reads state files of the client library, also while it writes them.
#include "engine/state_board.h"
#include "open_support.h"
#include "status.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

namespace {

using namespace opentest;

struct StatusRead : testing::Test {
    StatusRead() {
        file.chooseFolder(folder.path().c_str());
        file.connectionOpened();
    }
    static std::string text() { return rdbopen::stateFileText({{1, 1}, {2, 2}, "-", 7}, ""); }

    Folder folder;
    rdbopen::StateFile file;
};

TEST_F(StatusRead, AWrittenStateIsRunning) {
    file.write(text());
    EXPECT_EQ(status::readState(folder.path()).found, status::Found::running);
}

TEST_F(StatusRead, ACopyOfTheStateHasEnded) {
    file.write(text());
    const Folder other;
    std::filesystem::copy(folder.file("state"), other.file("state"));
    EXPECT_EQ(status::readState(other.path()).found, status::Found::ended);
}

TEST_F(StatusRead, AStateOfAnotherBootIsNamed) {
    const std::string own = readText("/proc/sys/kernel/random/boot_id");
    const auto named = [this](const std::string& boot) {
        writeText(folder.file("state"), rdbopen::stateFileText({{1, 1}, {2, 2}, boot, 7}, ""));
        return status::readState(folder.path()).earlier_boot;
    };
    EXPECT_TRUE(named("181923ea-93f1-4aea-91a5-b4dc6cc846d2"));
    EXPECT_FALSE(named(own.substr(0, own.find('\n'))));
    EXPECT_FALSE(named("-"));
}

//  The writer may replace the file after the reader has opened it and before the reader checks the lock. The opened
//  file then has no lock.
TEST_F(StatusRead, AStateThatIsReplacedMeanwhileIsRunning) {
    file.write(text());
    std::atomic<bool> done{false};
    std::thread writer([&] {
        while (!done)
            file.write(text());
    });
    int running = 0;
    for (int i = 0; i < 3000; ++i)
        running += status::readState(folder.path()).found == status::Found::running ? 1 : 0;
    done = true;
    writer.join();
    EXPECT_EQ(running, 3000);
}

TEST_F(StatusRead, WithoutAFolderThereIsNoState) {
    EXPECT_EQ(status::readState(folder.file("missing")).found, status::Found::nothing);
    writeText(folder.file("file"), "");
    EXPECT_EQ(status::readState(folder.file("file")).found, status::Found::nothing);
}

}  // namespace
