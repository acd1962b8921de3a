//  Other programs change the files of an open database. The back end detects this and writes the value again.
#include "sqlite/files.h"

#include "engine/desired_state.h"
#include "open_recorded_disk.h"
#include "open_sqlite_fixture.h"

#include <functional>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace opentest;
using namespace rdbopen;

//  Writes bytes to the file at path, as cp(1) does. Repeats this until the modification time changes, because its
//  resolution is limited.
void overwrite(const std::string& path, const std::string& bytes) {
    struct stat before {};
    struct stat after {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    do {
        writeText(path, bytes);
        ASSERT_EQ(stat(path.c_str(), &after), 0);
    } while (before.st_mtim.tv_sec == after.st_mtim.tv_sec && before.st_mtim.tv_nsec == after.st_mtim.tv_nsec);
}

class SqliteFilesTest : public SqliteValueFixture {
protected:
    std::string otherDatabase(const char* sql) {
        const std::string path = folder.file("other.db");
        writeText(path, "");
        {
            SqliteDatabase other;
            EXPECT_TRUE(other.open(path).ok());
            EXPECT_TRUE(other.run(sql).ok());
        }
        return readText(path);
    }
};

struct ForeignChange {
    const char* name;
    std::function<void(const std::string& file)> happen;
};

const ForeignChange foreign_changes[] = {
    {"OverwrittenByAnotherServicesDatabase",
     [](const std::string& file) {
         const Folder elsewhere;
         const auto other = backendFor("sqlite://" + elsewhere.file("other.db"));
         ASSERT_EQ(other->open(plainWaiter).code, 0);
         ASSERT_EQ(other->tags()->import(usableTag("host2")).code, 0);
         other->close();
         overwrite(file, readText(elsewhere.file("other.db")));
     }},
    {"OverwrittenByAnEmptyDatabase", [](const std::string& file) { overwrite(file, *newSqliteDatabase()); }},
    {"Emptied", [](const std::string& file) { overwrite(file, ""); }},
    {"Removed", [](const std::string& file) { unlink(file.c_str()); }},
    {"RemovedWithItsLog",
     [](const std::string& file) {
         for (const char* suffix : {"", "-wal", "-shm"})
             unlink((file + suffix).c_str());
     }},
    {"Renamed", [](const std::string& file) { std::filesystem::rename(file, file + ".old"); }},
    {"ReplacedByARename",
     [](const std::string& file) {
         writeText(file + ".new", *newSqliteDatabase());
         std::filesystem::rename(file + ".new", file);
     }},
    {"LeftWithoutItsLog", [](const std::string& file) { unlink((file + "-wal").c_str()); }},
    {"LeftWithoutItsIndex", [](const std::string& file) { unlink((file + "-shm").c_str()); }},
    {"LeftWithoutItsLogAndIndex",
     [](const std::string& file) {
         unlink((file + "-wal").c_str());
         unlink((file + "-shm").c_str());
     }},
    {"OverwrittenAndLeftWithoutItsLogAndIndex",
     [](const std::string& file) {
         overwrite(file, *newSqliteDatabase());
         unlink((file + "-wal").c_str());
         unlink((file + "-shm").c_str());
     }},
};

class SqliteForeignChange : public SqliteFilesTest, public testing::WithParamInterface<ForeignChange> {};

TEST_P(SqliteForeignChange, APutDetectsItAndTheValueIsWrittenAgain) {
    openAndPut("first");
    GetParam().happen(file);
    EXPECT_EQ(put("host1", "second"), errorBackendFailed);
    desired.recordValue(recordOf("host1", "second"), errorBackendFailed, {});
    backend->close();
    openAndCheck();
    EXPECT_EQ(current(), "second");
    EXPECT_EQ(query("PRAGMA integrity_check"), "ok");
}

TEST_P(SqliteForeignChange, ACheckDetectsItAndTheValueIsWrittenAgain) {
    openAndPut("first");
    GetParam().happen(file);
    EXPECT_EQ(backend->probe().code, errorBackendFailed);
    backend->close();
    openAndCheck();
    EXPECT_EQ(current(), "first");
    EXPECT_EQ(query("PRAGMA integrity_check"), "ok");
}

TEST_P(SqliteForeignChange, ATagCallDetectsIt) {
    openAndPut("first");
    GetParam().happen(file);
    RdbTag tag = tagNamed("host1");
    EXPECT_EQ(backend->tags()->get(tag).code, errorBackendFailed);
}

TEST_P(SqliteForeignChange, EachOfTwoServicesThatShareTheFileDetectsIt) {
    const auto second = backendFor("sqlite://" + file);
    openAndPut("first");
    ASSERT_EQ(second->open(plainWaiter).code, 0);
    ASSERT_EQ(backend->probe().code, 0);
    GetParam().happen(file);
    for (Backend* one : {backend.get(), second.get()}) {
        EXPECT_EQ(one->probe().code, errorBackendFailed);
        one->close();
    }
    openAndCheck();
    EXPECT_EQ(second->open(plainWaiter).code, 0);
    EXPECT_EQ(second->tags()->checkValue(recordOf("host1", "first")).code, 0);
    EXPECT_EQ(current(), "first");
}

//  The change happens before one of the flushes of the put. The first flush is that of the log. After a change, the
//  files may be no database, so the test removes them.
TEST_P(SqliteForeignChange, ItIsDetectedEvenWhileAValueIsWritten) {
    openAndPut("first");
    int flushes = flushCount();
    ASSERT_EQ(put("host1", "other"), 0);
    flushes = flushCount() - flushes;
    EXPECT_GT(flushes, 1);
    for (int at = 1; at <= flushes; ++at) {
        setBeforeFlush([&, left = at](int) mutable {
            if (--left == 0)
                GetParam().happen(file);
            return 0;
        });
        EXPECT_EQ(put("host1", "second"), errorBackendFailed) << at;
        setBeforeFlush(nullptr);
        backend->close();
        for (const char* suffix : {"", "-wal", "-shm"})
            unlink((file + suffix).c_str());
        openAndPut("first");
    }
}

INSTANTIATE_TEST_SUITE_P(Each, SqliteForeignChange, testing::ValuesIn(foreign_changes),
                         [](const auto& test) { return test.param.name; });

TEST_F(SqliteFilesTest, AnotherProgramsFileThatReplacedItIsUnchanged) {
    for (const std::string& bytes : {otherDatabase("CREATE TABLE mine(x)"), std::string(5000, 'x')}) {
        openAndPut("first");
        overwrite(file, bytes);
        EXPECT_EQ(put("host1", "second"), errorBackendFailed);
        backend->close();
        EXPECT_EQ(backend->open(plainWaiter).code, errorBackendFailed);
        backend->close();
        EXPECT_TRUE(readText(file) == bytes);
        unlink(file.c_str());
    }
}

//  If the back end did not check the files first, closing would write the log into the current file.
TEST_F(SqliteFilesTest, ClosingDoesNotChangeAFileThatWasOverwrittenUndetected) {
    openAndPut("first");
    SqliteDatabase reader;
    ASSERT_TRUE(reader.open(file).ok());
    ASSERT_TRUE(reader.run("BEGIN; SELECT * FROM tag").ok());
    ASSERT_EQ(put("host1", "second"), 0);
    ASSERT_GT(readText(file + "-wal").size(), 0U);
    const std::string bytes(5000, 'x');
    overwrite(file, bytes);
    reader.close();
    backend->close();
    EXPECT_TRUE(readText(file) == bytes);
    EXPECT_FALSE(std::filesystem::exists(file + "-wal"));
}

TEST_F(SqliteFilesTest, AfterAPutTheFileHasTheValueWithoutItsLog) {
    openAndPut("first");
    const Folder copy;
    std::filesystem::copy(file, copy.file("rdb.db"));
    SqliteDatabase reader;
    ASSERT_TRUE(reader.open(copy.file("rdb.db")).ok());
    EXPECT_EQ(textOf(reader, "SELECT value FROM current_values"), "first");
    EXPECT_EQ(readText(file + "-wal"), "");
}

TEST_F(SqliteFilesTest, ALogThatAReaderNeedsIsEmptiedByALaterCheck) {
    openAndPut("first");
    SqliteDatabase reader;
    ASSERT_TRUE(reader.open(file).ok());
    ASSERT_TRUE(reader.run("BEGIN; SELECT * FROM tag").ok());
    EXPECT_EQ(put("host1", "second"), 0);
    EXPECT_EQ(backend->probe().code, 0);
    EXPECT_NE(readText(file + "-wal"), "");
    EXPECT_EQ(textOf(reader, "SELECT value FROM current_values"), "first");
    reader.close();
    EXPECT_EQ(backend->probe().code, 0);
    EXPECT_EQ(readText(file + "-wal"), "");
}

TEST_F(SqliteFilesTest, ChangesByOtherConnectionsAreNotDamage) {
    const auto second = backendFor("sqlite://" + file);
    openAndPut("first");
    ASSERT_EQ(second->open(plainWaiter).code, 0);
    for (int round = 0; round < 5; ++round) {
        const RdbSnapshot record = recordOf("host1", std::string(900, static_cast<char>('a' + round)));
        EXPECT_EQ(second->tags()->put({&record, 1}).code, 0);
        EXPECT_EQ(backend->probe().code, 0);
        EXPECT_EQ(backend->tags()->checkValue(record).code, 0);
        EXPECT_EQ(put("host1", "v"), 0);
        EXPECT_EQ(second->probe().code, 0);
        for (const char* sql : {"VACUUM", "PRAGMA wal_checkpoint(TRUNCATE)", "CREATE TABLE IF NOT EXISTS mine(x)",
                                "UPDATE tag SET imported_ms = 0"}) {
            makeForeign(sql);
            EXPECT_EQ(backend->probe().code, 0) << sql;
            EXPECT_EQ(second->probe().code, 0) << sql;
        }
    }
    second->close();
    EXPECT_EQ(put("host1", "v"), 0);
}

TEST_F(SqliteFilesTest, ChecksOfAnotherServiceDoNotHideDamage) {
    const auto second = backendFor("sqlite://" + file);
    openAndPut("first");
    ASSERT_EQ(second->open(plainWaiter).code, 0);
    ASSERT_EQ(backend->probe().code, 0);
    ASSERT_EQ(second->probe().code, 0);
    overwrite(file, *newSqliteDatabase());
    EXPECT_EQ(backend->probe().code, errorBackendFailed);
}

//  `second` put the last value. So `backend` cannot distinguish the overwritten file from one that SQLite wrote for
//  `second`; only a check that misses the value detects the change.
TEST_F(SqliteFilesTest, DamageAfterAnotherServicesPutIsDetectedByACheckOfTheValue) {
    const auto second = backendFor("sqlite://" + file);
    openAndPut("first");
    ASSERT_EQ(second->open(plainWaiter).code, 0);
    const RdbSnapshot record = recordOf("host1", "second");
    ASSERT_EQ(second->tags()->put({&record, 1}).code, 0);
    overwrite(file, *newSqliteDatabase());
    EXPECT_EQ(backend->probe().code, 0);
    EXPECT_NE(backend->tags()->checkValue(record).code, 0);
    EXPECT_EQ(second->probe().code, errorBackendFailed);
    second->close();
    EXPECT_EQ(backend->probe().code, errorBackendFailed);
    backend->close();
    openAndCheck();
    EXPECT_EQ(second->open(plainWaiter).code, 0);
    EXPECT_EQ(current(), "first");
}

TEST_F(SqliteFilesTest, AFileThatIsNotADatabaseIsDetectedAlsoAfterAnotherServicesPut) {
    for (const std::string& bytes : {std::string(), std::string(5000, 'x'), otherDatabase("CREATE TABLE mine(x)")}) {
        const auto second = backendFor("sqlite://" + file);
        openAndPut("first");
        ASSERT_EQ(second->open(plainWaiter).code, 0);
        const RdbSnapshot record = recordOf("host1", "second");
        ASSERT_EQ(second->tags()->put({&record, 1}).code, 0);
        overwrite(file, bytes);
        EXPECT_EQ(backend->probe().reason, "the file was overwritten by another program");
        second->close();
        backend->close();
        EXPECT_TRUE(readText(file) == bytes);
        unlink(file.c_str());
    }
}

TEST_F(SqliteFilesTest, SeveralRecordsOfOneTagArePutInTheirOrder) {
    openAndPut("first");
    const RdbSnapshot records[3] = {recordOf("host1", "1"), recordOf("host1", "2"), recordOf("host1", "3")};
    EXPECT_EQ(backend->tags()->put(records).code, 0);
    EXPECT_EQ(current(), "3");
}

//  SQLite keeps using the file that it opened, even if the file is renamed before opening ends.
TEST_F(SqliteFilesTest, AFileThatIsReplacedWhileItIsOpenedIsDetected) {
    openAndPut("first");
    backend->close();
    const std::string other = folder.file("other.db");
    writeText(other, *newSqliteDatabase());
    setBeforeFlush([&](int fd) {
        struct stat status {};
        if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || !std::filesystem::exists(other))
            return 0;
        std::filesystem::rename(other, file);
        std::filesystem::rename(file + "-wal", file + "-wal.old");
        writeText(file + "-wal", "of the other file");
        return 0;
    });
    EXPECT_EQ(backend->open(plainWaiter).code, errorBackendFailed);
    setBeforeFlush(nullptr);
    backend->close();
    EXPECT_EQ(readText(file + "-wal"), "of the other file");
    openAndCheck();
    EXPECT_EQ(current(), "first");
}

TEST_F(SqliteFilesTest, AChangeOfModeIsNotDamage) {
    openAndPut("first");
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    EXPECT_EQ(backend->probe().code, 0);
    EXPECT_EQ(put("host1", "second"), 0);
}

TEST_F(SqliteFilesTest, AChangedLinkIsFollowedAgainAndTheOldFileKeepsItsValue) {
    const std::string link = folder.file("link.db");
    ASSERT_EQ(symlink("rdb.db", link.c_str()), 0);
    backend = backendFor("sqlite://" + link);
    openAndPut("first");
    unlink(link.c_str());
    ASSERT_EQ(symlink("new.db", link.c_str()), 0);
    EXPECT_EQ(put("host1", "second"), errorBackendFailed);
    backend->close();
    EXPECT_EQ(current(), "first");
    openAndCheck();
    SqliteDatabase reader;
    ASSERT_TRUE(reader.open(folder.file("new.db")).ok());
    EXPECT_EQ(textOf(reader, "SELECT value FROM current_values"), "first");
}

TEST_F(SqliteFilesTest, AValueThatAnotherProgramChangedOrRemovedIsWrittenAgain) {
    openAndPut("first");
    for (const char* sql : {"UPDATE snapshot SET value = 'other'", "UPDATE snapshot SET type = 9",
                            "DELETE FROM snapshot", "DELETE FROM snapshot; DELETE FROM history; DELETE FROM tag"}) {
        makeForeign(sql);
        EXPECT_EQ(backend->tags()->checkValue(recordOf("host1", "first")).code, errorNotHeld) << sql;
        check();
        EXPECT_EQ(current(), "first") << sql;
    }
}

TEST_F(SqliteFilesTest, ACheckComparesAValueByItsLength) {
    openAndPut("first");
    RdbSnapshot record = recordOf("host1", "a\0b");
    record.valuelen = 3;
    std::memcpy(record.value, "a\0b", 3);
    ASSERT_EQ(backend->tags()->put({&record, 1}).code, 0);
    EXPECT_EQ(backend->tags()->checkValue(record).code, 0);
    record.valuelen = 1;
    EXPECT_EQ(backend->tags()->checkValue(record).code, errorNotHeld);
}

TEST_F(SqliteFilesTest, AnUnchangedFileIsNotWrittenByChecks) {
    openAndPut("first");
    ASSERT_EQ(backend->probe().code, 0);
    const int before = flushCount();
    check();
    EXPECT_EQ(flushCount(), before);
}

TEST_F(SqliteFilesTest, TheCheckIntervalIsAMinute) {
    EXPECT_EQ(backend->checkInterval(), std::chrono::seconds(60));
}

}  // namespace
