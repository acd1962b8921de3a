//  The state file in a real folder. Some calls of the C library are wrapped: they fail, or run a step of the test.
#include "engine/state_file.h"
#include "open_support.h"

#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

std::function<void()> beforeRename;
std::function<void()> afterCreation;
int failingWrites = 0;

}  // namespace

extern "C" {

int __real_rename(const char* from, const char* to);
int __wrap_rename(const char* from, const char* to) {
    if (beforeRename)
        std::exchange(beforeRename, nullptr)();
    return __real_rename(from, to);
}

ssize_t __real_write(int fd, const void* bytes, std::size_t length);
ssize_t __wrap_write(int fd, const void* bytes, std::size_t length) {
    if (failingWrites > 0) {
        --failingWrites;
        errno = ENOSPC;
        return -1;
    }
    return __real_write(fd, bytes, length);
}

int __real_fchmod(int fd, mode_t mode);
int __wrap_fchmod(int fd, mode_t mode) {
    if (afterCreation)
        std::exchange(afterCreation, nullptr)();
    return __real_fchmod(fd, mode);
}
}

namespace {

using namespace rdbopen;
using namespace opentest;

struct StateFileTest : testing::Test {
    StateFileTest() {
        file.chooseFolder(folder.path().c_str());
        file.connectionOpened();
    }
    bool exists(const char* name) const { return access(folder.file(name).c_str(), F_OK) == 0; }
    std::string text() const { return readText(folder.file("state")); }

    //  Returns whether the file has a write lock.
    bool locked() const {
        const int fd = open(folder.file("state").c_str(), O_RDONLY);
        struct flock whole {};
        whole.l_type = F_RDLCK;
        const bool found = fd >= 0 && fcntl(fd, F_OFD_GETLK, &whole) == 0 && whole.l_type == F_WRLCK;
        close(fd);
        return found;
    }

    Folder folder;
    StateFile file;
};

TEST_F(StateFileTest, IsWrittenLockedAndReadableByEveryUser) {
    const mode_t mask = umask(077);
    file.write("text");
    umask(mask);
    struct stat status {};
    ASSERT_EQ(stat(folder.file("state").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0644U);
    EXPECT_EQ(text(), "text");
    EXPECT_TRUE(locked());
    EXPECT_FALSE(exists("state.new"));
}

TEST_F(StateFileTest, TheLockFileIsNotReadableByOthers) {
    const mode_t mask = umask(0);
    file.write("text");
    umask(mask);
    struct stat status {};
    ASSERT_EQ(stat(folder.file("state.lock").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
}

TEST_F(StateFileTest, TheLockFileBelongsToTheOwnerOfTheFolder) {
    constexpr uid_t nobody = 65534;
    ASSERT_EQ(chown(folder.path().c_str(), nobody, nobody), 0);
    file.write("a");
    struct stat status {};
    ASSERT_EQ(stat(folder.file("state.lock").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, nobody);
}

TEST_F(StateFileTest, AReplacedFileIsLocked) {
    file.write("old");
    file.write("new");
    EXPECT_EQ(text(), "new");
    EXPECT_TRUE(locked());
}

TEST_F(StateFileTest, BeforeTheRenameAReaderSeesTheOldText) {
    file.write("old");
    std::string seen;
    beforeRename = [&] { seen = text(); };
    file.write("new");
    EXPECT_EQ(seen, "old");
}

TEST_F(StateFileTest, TheLastClosedConnectionRemovesIt) {
    file.connectionOpened();
    file.write("text");
    file.connectionClosed();
    EXPECT_TRUE(exists("state"));
    file.connectionClosed();
    EXPECT_FALSE(exists("state"));
}

TEST_F(StateFileTest, WithoutAConnectionNothingIsWritten) {
    file.connectionClosed();
    file.write("text");
    EXPECT_FALSE(exists("state"));
    EXPECT_FALSE(exists("state.lock"));
}

TEST_F(StateFileTest, AConnectionClosedBeforeTheRenameLeavesNoFile) {
    file.write("old");
    beforeRename = [this] { file.connectionClosed(); };
    file.write("new");
    EXPECT_FALSE(exists("state"));
    EXPECT_FALSE(exists("state.new"));
}

TEST_F(StateFileTest, AConnectionClosedAfterTheNewFileIsWrittenLeavesNoFile) {
    file.write("old");
    afterCreation = [this] { file.connectionClosed(); };
    file.write("new");
    EXPECT_FALSE(exists("state"));
    EXPECT_FALSE(exists("state.new"));
}

TEST_F(StateFileTest, ClosingKeepsErrno) {
    file.write("text");
    errno = ENOTTY;
    file.connectionClosed();
    EXPECT_EQ(errno, ENOTTY);
}

TEST_F(StateFileTest, OnlyOneOfTwoWritersWrites) {
    StateFile second;
    second.chooseFolder(folder.path().c_str());
    second.connectionOpened();
    file.write("first");
    second.write("second");
    EXPECT_EQ(text(), "first");
    second.connectionClosed();
    EXPECT_EQ(text(), "first");
}

TEST_F(StateFileTest, AfterTheFolderWasReplacedItIsLockedAgain) {
    file.write("text");
    std::filesystem::remove_all(folder.path());
    file.write("text");
    EXPECT_FALSE(exists("state"));
    std::filesystem::create_directory(folder.path());
    file.write("text");
    EXPECT_EQ(text(), "text");
    EXPECT_TRUE(exists("state.lock"));
}

TEST_F(StateFileTest, AStateThatCannotBeReplacedIsRemovedToMakeRoom) {
    file.write("old");
    failingWrites = 1;
    bool present = true;
    beforeRename = [&] { present = exists("state"); };
    file.write("new");
    EXPECT_FALSE(present);
    EXPECT_EQ(text(), "new");
}

TEST_F(StateFileTest, AnOldStateIsRemovedWhenNoNewOneCanBeWritten) {
    file.write("old");
    failingWrites = 2;
    file.write("new");
    EXPECT_FALSE(exists("state"));
    EXPECT_FALSE(exists("state.new"));
    file.write("later");
    EXPECT_EQ(text(), "later");
}

TEST_F(StateFileTest, ALeftoverOfAKilledProcessIsReplaced) {
    writeText(folder.file("state.new"), "a longer text of an earlier process");
    file.write("text");
    EXPECT_EQ(text(), "text");
}

TEST_F(StateFileTest, ALinkIsReplacedAndNotFollowed) {
    ASSERT_EQ(symlink(folder.file("victim").c_str(), folder.file("state.new").c_str()), 0);
    file.write("text");
    EXPECT_FALSE(exists("victim"));
    EXPECT_EQ(text(), "text");
}

TEST_F(StateFileTest, AChildDoesNotRemoveTheFileOfItsParent) {
    file.write("text");
    const pid_t child = fork();
    if (child == 0) {
        file.connectionClosed();
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(text(), "text");
}

TEST(StateFolder, OnlyTheFirstFolderOfTheListIsUsed) {
    const Folder first;
    const Folder second;
    StateFile file;
    file.connectionOpened();
    file.chooseFolder((first.path() + ":" + second.path()).c_str());
    file.chooseFolder(second.path().c_str());
    file.write("text");
    EXPECT_EQ(readText(first.file("state")), "text");
    EXPECT_FALSE(std::filesystem::exists(second.file("state")));
}

TEST(StateFolder, AMissingFolderIsNotCreated) {
    const Folder folder;
    StateFile file;
    file.connectionOpened();
    file.chooseFolder(folder.file("missing").c_str());
    file.write("text");
    EXPECT_FALSE(std::filesystem::exists(folder.file("missing")));
}

TEST(StateFolder, APathThatIsTooLongIsIgnored) {
    const Folder folder;
    const std::string name = folder.file(std::string(250, 'x'));
    ASSERT_TRUE(std::filesystem::create_directory(name));
    StateFile file;
    file.connectionOpened();
    file.chooseFolder(name.c_str());
    file.write("text");
    EXPECT_TRUE(std::filesystem::is_empty(name));
}

}  // namespace
