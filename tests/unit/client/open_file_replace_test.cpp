#include "files/replace.h"

#include "open_support.h"

#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

//  Makes one call of the named function fail. `number` is the number of this call, counted from 1.
struct Failure {
    const char* function = "";
    int number = 0;
    int error = 0;
};
Failure failure;
int shortWrite = 0;                 // maximum number of bytes per write, 0 for no limit
std::function<void()> beforeFsync;  // simulates what another process does meanwhile
std::vector<std::string> trace;

bool fails(const char* function) {
    trace.emplace_back(function);
    if (std::strcmp(failure.function, function) != 0 || --failure.number != 0)
        return false;
    errno = failure.error;
    return true;
}

}  // namespace

extern "C" {
int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return fails("open") ? -1 : __real_open(path, flags, mode);
}
ssize_t __real_write(int fd, const void* bytes, size_t size);
ssize_t __wrap_write(int fd, const void* bytes, size_t size) {
    if (fails("write"))
        return -1;
    return __real_write(fd, bytes, shortWrite > 0 ? std::min(size, static_cast<size_t>(shortWrite)) : size);
}
int __real_fsync(int fd);
int __wrap_fsync(int fd) {
    if (beforeFsync)
        beforeFsync();
    return fails("fsync") ? -1 : __real_fsync(fd);
}
int __real_rename(const char* from, const char* to);
int __wrap_rename(const char* from, const char* to) {
    return fails("rename") ? -1 : __real_rename(from, to);
}
int __real_fchmod(int fd, mode_t mode);
int __wrap_fchmod(int fd, mode_t mode) {
    return fails("fchmod") ? -1 : __real_fchmod(fd, mode);
}
int __real_fchown(int fd, uid_t user, gid_t group);
int __wrap_fchown(int fd, uid_t user, gid_t group) {
    return fails("fchown") ? -1 : __real_fchown(fd, user, group);
}
int __real_flock(int fd, int operation);
int __wrap_flock(int fd, int operation) {
    return fails("flock") ? -1 : __real_flock(fd, operation);
}
}

namespace {

using namespace opentest;
using namespace rdbopen;

class FileReplace : public testing::Test {
protected:
    FileReplace() { EXPECT_EQ(resolveFile(file, place).reason, ""); }
    ~FileReplace() override {
        failure = Failure();
        shortWrite = 0;
        beforeFsync = nullptr;
    }
    Status replace(const std::string& bytes) {
        const Result<FileText> before = readFile(place);
        trace.clear();
        Status status = before.ok() ? replaceFile(place, *before, bytes) : before.status();
        return status.ok() ? flushDirectory(place) : status;
    }
    mode_t modeOf(const std::string& path) {
        struct stat status {};
        EXPECT_EQ(lstat(path.c_str(), &status), 0);
        return status.st_mode & 07777;
    }

    Folder folder;
    const std::string file = folder.file("hosts");
    FilePlace place;
};

TEST_F(FileReplace, TheFileIsFlushedBeforeTheRenameAndTheFolderAfterIt) {
    writeText(file, "old");
    ASSERT_EQ(replace("new").code, errorNone);
    EXPECT_EQ(readText(file), "new");
    EXPECT_EQ(trace, (std::vector<std::string>{"open", "fchmod", "write", "fsync", "rename", "open", "fsync"}));
}

TEST_F(FileReplace, APartialWriteIsContinued) {
    shortWrite = 3;
    ASSERT_EQ(replace("0123456789").code, errorNone);
    EXPECT_EQ(readText(file), "0123456789");
}

TEST_F(FileReplace, ANewFileIsReadableByAllDespiteTheUmask) {
    const mode_t before = umask(077);
    ASSERT_EQ(replace("x").code, errorNone);
    umask(before);
    EXPECT_EQ(modeOf(file), 0644U);
}

TEST_F(FileReplace, TheModeIsKept) {
    writeText(file, "old");
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    ASSERT_EQ(replace("new").code, errorNone);
    EXPECT_EQ(modeOf(file), 0640U);
}

TEST_F(FileReplace, TheOwnerIsKept) {
    writeText(file, "old");
    if (chown(file.c_str(), 1234, 2345) != 0)
        GTEST_SKIP() << "needs root";
    ASSERT_EQ(chmod(file.c_str(), 06755), 0);
    ASSERT_EQ(replace("new").code, errorNone);
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 1234U);
    EXPECT_EQ(status.st_gid, 2345U);
    EXPECT_EQ(status.st_mode & 07777, 06755U);
}

TEST_F(FileReplace, ASymbolicLinkIsKeptAndItsTargetIsReplaced) {
    std::filesystem::create_directory(folder.file("real"));
    writeText(folder.file("real/target"), "old");
    ASSERT_EQ(symlink("real/target", file.c_str()), 0);
    ASSERT_EQ(resolveFile(file, place).reason, "");
    ASSERT_EQ(replace("new").code, errorNone);
    EXPECT_TRUE(std::filesystem::is_symlink(file));
    EXPECT_EQ(readText(folder.file("real/target")), "new");
    EXPECT_EQ(place.lock(), folder.file("real/.target.addrpubd.lock"));
}

TEST_F(FileReplace, TheMissingTargetOfALinkIsCreated) {
    ASSERT_EQ(symlink("target", file.c_str()), 0);
    ASSERT_EQ(resolveFile(file, place).reason, "");
    ASSERT_EQ(replace("new").code, errorNone);
    EXPECT_TRUE(std::filesystem::is_symlink(file));
    EXPECT_EQ(readText(folder.file("target")), "new");
}

TEST_F(FileReplace, AnEditDuringTheReplacementIsNotOverwritten) {
    writeText(file, "old");
    beforeFsync = [this] { writeText(file, "edited meanwhile"); };
    EXPECT_EQ(replace("new").code, errorFileChanged);
    EXPECT_EQ(readText(file), "edited meanwhile");
}

TEST_F(FileReplace, AFileCreatedDuringTheReplacementIsNotOverwritten) {
    beforeFsync = [this] { writeText(file, "made meanwhile"); };
    EXPECT_EQ(replace("new").code, errorFileChanged);
    EXPECT_EQ(readText(file), "made meanwhile");
}

TEST_F(FileReplace, AFileLeftByACrashIsReplaced) {
    writeText(place.temporary(), "left behind");
    ASSERT_EQ(replace("new").code, errorNone);
    EXPECT_FALSE(std::filesystem::exists(place.temporary()));
}

TEST_F(FileReplace, ALinkInPlaceOfTheTemporaryFileIsNotFollowed) {
    writeText(folder.file("victim"), "kept");
    ASSERT_EQ(symlink("victim", place.temporary().c_str()), 0);
    ASSERT_EQ(replace("new").code, errorNone);
    EXPECT_EQ(readText(folder.file("victim")), "kept");
}

TEST_F(FileReplace, FilesAbove16MiBAreRefused) {
    writeText(file, "");
    ASSERT_EQ(truncate(file.c_str(), (16 << 20) + 1), 0);
    const Status status = readFile(place).status();
    EXPECT_EQ(status.code, errorTooLarge);
    EXPECT_EQ(status.reason, errorText(EFBIG));
}

TEST_F(FileReplace, ATextAbove16MiBIsRefusedBeforeItIsWritten) {
    writeText(file, "old");
    EXPECT_EQ(replace(std::string((16 << 20) + 1, 'x')).code, errorTooLarge);
    EXPECT_EQ(trace, std::vector<std::string>());
    EXPECT_EQ(readText(file), "old");
}

TEST_F(FileReplace, ATextOfExactly16MiBIsWrittenAndCanBeRead) {
    ASSERT_EQ(replace(std::string(16 << 20, 'x')).code, errorNone);
    EXPECT_TRUE(readFile(place).ok());
}

TEST_F(FileReplace, ReadingAMissingFileIsNotAFailure) {
    const Result<FileText> text = readFile(place);
    ASSERT_TRUE(text.ok());
    EXPECT_FALSE(text->exists);
}

TEST_F(FileReplace, TheTestWhetherTheFolderIsWritableLeavesNoFile) {
    EXPECT_TRUE(testWritable(place).ok());
    EXPECT_EQ(entriesOf(folder.path().c_str()), 0U);
}

struct FailingCall {
    const char* name;
    Failure failure;
};

class FileReplaceFailure : public FileReplace, public testing::WithParamInterface<FailingCall> {};

TEST_P(FileReplaceFailure, IsReportedAndLeavesOnlyTheOldFile) {
    writeText(file, "old");
    ASSERT_EQ(chmod(file.c_str(), 0644), 0);
    Result<FileText> before = readFile(place);
    ASSERT_TRUE(before.ok());
    if (std::strcmp(GetParam().failure.function, "fchown") == 0)
        before->inode.st_uid += 1;
    failure = GetParam().failure;
    EXPECT_EQ(replaceFile(place, *before, "new").reason, errorText(GetParam().failure.error));
    failure = Failure();
    EXPECT_EQ(readText(file), "old");
    EXPECT_EQ(entriesOf(folder.path().c_str()), 1U);
}

constexpr FailingCall failingCalls[] = {
    {"OfOpen", {"open", 1, EROFS}},    {"OfFchmod", {"fchmod", 1, EPERM}}, {"OfFchown", {"fchown", 1, EPERM}},
    {"OfWrite", {"write", 1, ENOSPC}}, {"OfFsync", {"fsync", 1, EIO}},     {"OfRename", {"rename", 1, EBUSY}},
};

INSTANTIATE_TEST_SUITE_P(EachCall, FileReplaceFailure, testing::ValuesIn(failingCalls),
                         [](const auto& test) { return test.param.name; });

TEST_F(FileReplace, AFolderThatCannotBeFlushedIsReported) {
    failure = {"fsync", 2, EIO};
    EXPECT_EQ(replace("new").reason, errorText(EIO));
    EXPECT_EQ(readText(file), "new");
}

TEST_F(FileReplace, AnInterruptedWriteIsRepeated) {
    failure = {"write", 1, EINTR};
    EXPECT_EQ(replace("new").code, errorNone);
    EXPECT_EQ(readText(file), "new");
}

}  // namespace
