//  Creation of a database: power failures at any moment, starts of several services at the same time, and any umask.
#include "sqlite/creation.h"

#include "open_recorded_disk.h"
#include "open_sqlite_fixture.h"

#include <atomic>
#include <cerrno>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace opentest;
using namespace rdbopen;

class SqliteCreation : public SqliteFixture {
protected:
    mode_t modeOf(const char* suffix) {
        struct stat status {};
        EXPECT_EQ(stat((file + suffix).c_str(), &status), 0) << suffix;
        return status.st_mode & 07777;
    }
    void openPutAndExpect(const char* value) {
        openWithTag("host1");
        ASSERT_EQ(put("host1", value), 0);
        EXPECT_EQ(query("SELECT value FROM current_values"), value);
        EXPECT_EQ(query("PRAGMA integrity_check"), "ok");
        EXPECT_EQ(query("PRAGMA journal_mode"), "wal");
    }
    //  Opens the database in each of these folders, as a service does after a power failure.
    static void expectThatAllOpen(const std::set<FolderContent>& folders) {
        for (const FolderContent& content : folders) {
            const Folder after;
            std::string shown;
            for (const auto& [name, bytes] : content) {
                writeText(after.file(name), bytes);
                shown += name + " of " + std::to_string(bytes.size()) + " bytes; ";
            }
            const auto service = backendFor("sqlite://" + after.file("rdb.db"));
            const Status outcome = service->open(plainWaiter);
            ASSERT_EQ(outcome.code, 0) << outcome.reason << ": " << shown;
            ASSERT_EQ(service->tags()->import(usableTag("host1")).code, 0) << shown;
            const RdbSnapshot record = recordOf("host1", "after");
            ASSERT_EQ(service->tags()->put({&record, 1}).code, 0) << shown;
            SqliteDatabase reader;
            ASSERT_TRUE(reader.open(after.file("rdb.db")).ok());
            EXPECT_EQ(textOf(reader, "SELECT value FROM current_values"), "after") << shown;
            EXPECT_EQ(textOf(reader, "PRAGMA integrity_check"), "ok") << shown;
        }
    }
};

TEST_F(SqliteCreation, APowerFailureAtAnyMomentLeavesADatabaseThatOpens) {
    startRecording(folder.path());
    openWithTag("host1");
    EXPECT_EQ(put("host1", "before"), 0);
    backend->close();
    stopRecording();
    const auto folders = cutsAtAnyMoment();
    EXPECT_GT(folders.size(), 30U);
    expectThatAllOpen(folders);
}

TEST_F(SqliteCreation, APowerFailureWhileAnEmptyFileIsFilledLeavesADatabaseThatOpens) {
    writeText(file, "");
    writeText(file + "-journal", "left behind");
    startRecording(folder.path());
    openWithTag("host1");
    backend->close();
    stopRecording();
    const auto folders = cutsAtAnyMoment();
    EXPECT_GT(folders.size(), 20U);
    expectThatAllOpen(folders);
}

//  SQLite fills an empty file itself if the file cannot be replaced by renaming.
TEST_F(SqliteCreation, APowerFailureWhileSqliteFillsTheFileLeavesADatabaseThatOpens) {
    writeText(file, "");
    startRecording(folder.path());
    {
        SqliteDatabase database;
        ASSERT_TRUE(database.open(file).ok());
        ASSERT_EQ(makeSqliteSchema(database).reason, "");
        ASSERT_EQ(textOf(database, "PRAGMA journal_mode = WAL"), "wal");
    }
    stopRecording();
    const auto folders = cutsAtAnyMoment();
    EXPECT_GT(folders.size(), 30U);
    expectThatAllOpen(folders);
}

TEST_F(SqliteCreation, AFileOfZerosIsRefusedAndUnchanged) {
    const std::string blank(8192, '\0');
    std::string journal(512, '\0');
    journal.replace(0, 8, "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7");
    journal[19] = 2;  // size of the database in pages that the journal would restore
    for (const std::string& beside : {std::string(), std::string(512, 'x'), journal}) {
        writeText(file, blank);
        if (!beside.empty())
            writeText(file + "-journal", beside);
        EXPECT_EQ(backend->open(plainWaiter).reason, "the file is not a database");
        backend->close();
        EXPECT_TRUE(readText(file) == blank);
    }
}

TEST_F(SqliteCreation, NoTemporaryFileIsLeft) {
    open();
    backend->close();
    EXPECT_EQ(entriesOf(folder.path().c_str()), 1U);
}

//  The remains of a removed database: a write-ahead log with the value "old", and a rollback journal.
class SqliteCreationBesideALog : public SqliteCreation {
protected:
    void SetUp() override {
        openWithTag("host1");
        SqliteDatabase reader;  // prevents SQLite from emptying the log
        ASSERT_TRUE(reader.open(file).ok());
        ASSERT_TRUE(reader.run("BEGIN; SELECT * FROM tag").ok());
        ASSERT_EQ(put("host1", "old"), 0);
        const std::string log = readText(file + "-wal");
        ASSERT_GT(log.size(), 0U);
        reader.close();
        backend->close();
        unlink(file.c_str());
        writeText(file + "-wal", log);
        writeText(file + "-journal", "left behind");
    }
    const char* const leftovers = "SELECT count(*) FROM history";
};

TEST_F(SqliteCreationBesideALog, AMissingFileIsCreatedWithoutTheLogsValue) {
    openWithTag("host2");
    EXPECT_EQ(query(leftovers), "0");
}

TEST_F(SqliteCreationBesideALog, AnEmptyFileIsFilledWithoutTheLogsValue) {
    writeText(file, "");
    openWithTag("host2");
    EXPECT_EQ(query(leftovers), "0");
}

TEST_F(SqliteCreationBesideALog, APowerFailureDoesNotRestoreItsValue) {
    startRecording(folder.path());
    open();
    stopRecording();
    for (const FolderContent& content : cutsAtAnyMoment()) {
        const Folder after;
        for (const auto& [name, bytes] : content)
            writeText(after.file(name), bytes);
        const auto service = backendFor("sqlite://" + after.file("rdb.db"));
        ASSERT_EQ(service->open(plainWaiter).code, 0);
        SqliteDatabase reader;
        ASSERT_TRUE(reader.open(after.file("rdb.db")).ok());
        EXPECT_EQ(textOf(reader, leftovers), "0");
    }
}

TEST_F(SqliteCreation, APutValueSurvivesAPowerFailure) {
    startRecording(folder.path());
    openWithTag("host1");
    EXPECT_EQ(put("host1", "v"), 0);
    stopRecording();
    for (const FolderContent& content : cutsAtTheEnd()) {
        const Folder after;
        for (const auto& [name, bytes] : content)
            writeText(after.file(name), bytes);
        SqliteDatabase reader;
        ASSERT_TRUE(reader.open(after.file("rdb.db")).ok());
        EXPECT_EQ(textOf(reader, "SELECT value FROM current_values"), "v");
    }
}

TEST_F(SqliteCreation, ARetryAfterAFailedFlushOfTheFolderFlushesItAgain) {
    setBeforeFlush([](int fd) {
        struct stat status {};
        return fstat(fd, &status) == 0 && S_ISDIR(status.st_mode) ? EIO : 0;
    });
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(backend->open(plainWaiter).reason, "the folder cannot be flushed: " + errorText(EIO));
        backend->close();
        EXPECT_TRUE(std::filesystem::exists(file));
    }
    setBeforeFlush(nullptr);
    open();
}

TEST_F(SqliteCreation, EachFileHasTheDocumentedModeWithAnyUmask) {
    for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{077}, mode_t{0777}}) {
        const mode_t before = umask(mask);
        openWithTag("host1");
        umask(before);
        for (const char* suffix : {"", "-wal", "-shm"})
            EXPECT_EQ(modeOf(suffix), 0644U) << suffix << " with " << mask;
        backend->close();
        unlink(file.c_str());
    }
}

TEST_F(SqliteCreation, AnEmptyFileKeepsItsModeAndOwner) {
    writeText(file, "");
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    if (chown(file.c_str(), 1234, 2345) != 0)
        GTEST_SKIP() << "needs root";
    openPutAndExpect("v");
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 1234U);
    EXPECT_EQ(status.st_gid, 2345U);
    for (const char* suffix : {"", "-wal", "-shm"})
        EXPECT_EQ(modeOf(suffix), 0640U) << suffix;
}

TEST_F(SqliteCreation, ServicesThatStartTogetherShareOneFile) {
    constexpr int count = 4;
    for (int round = 0; round < 10; ++round) {
        std::atomic<int> ready{0};
        std::atomic<int> failures{0};
        std::vector<std::thread> services;
        for (int i = 0; i < count; ++i)
            services.emplace_back([&, i] {
                const auto service = backendFor("sqlite://" + file);
                const std::string name = "host" + std::to_string(i);
                for (++ready; ready < count;)
                    ;
                const RdbSnapshot record = recordOf(name, name);
                if (service->open(plainWaiter).code != 0 || service->tags()->import(usableTag(name)).code != 0 ||
                    service->tags()->put({&record, 1}).code != 0)
                    ++failures;
            });
        for (std::thread& service : services)
            service.join();
        EXPECT_EQ(failures, 0);
        EXPECT_EQ(query("SELECT count(*) FROM current_values"), std::to_string(count));
        unlink(file.c_str());
    }
}

TEST_F(SqliteCreation, ALinkOfAnotherUserInASharedFolderIsNotFollowed) {
    const std::string link = folder.file("shared/rdb.db");
    std::filesystem::create_directory(folder.file("shared"));
    ASSERT_EQ(symlink("../rdb.db", link.c_str()), 0);
    if (lchown(link.c_str(), 1234, 1234) != 0)
        GTEST_SKIP() << "needs root";
    EXPECT_EQ(backendFor("sqlite://" + link)->open(plainWaiter).code, 0);
    EXPECT_TRUE(std::filesystem::exists(file));
    ASSERT_EQ(chmod(folder.file("shared").c_str(), 01777), 0);
    EXPECT_EQ(backendFor("sqlite://" + link)->open(plainWaiter).reason,
              "the file cannot be reached: the link " + link +
                  " in a folder that others can write belongs to somebody else");
}

TEST_F(SqliteCreation, ALockFileThatCannotBeLockedIsNamed) {
    std::filesystem::create_directory(folder.file(".rdb.db.addrpubd.lock"));
    EXPECT_EQ(backend->open(plainWaiter).reason,
              "cannot be made: the lock file cannot be locked: " + errorText(EISDIR));
}

//  SQLite follows links by default. The back end switches this off, because a link may appear after the path was
//  resolved.
TEST_F(SqliteCreation, SqliteItselfFollowsNoLink) {
    open();
    ASSERT_EQ(symlink("rdb.db", folder.file("link").c_str()), 0);
    SqliteDatabase database;
    EXPECT_FALSE(database.open(folder.file("link")).ok());
}

}  // namespace
