//  The back end for urls of the form sqlite:///PATH, called directly, and once through the library's nine functions.
//  The tests read the database through a second connection, like the sqlite3 program.
#include "sqlite/backend.h"

#include "open_recorded_disk.h"
#include "open_sqlite_fixture.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace opentest;
using namespace rdbopen;

class SqliteBackend : public SqliteFixture {};

TEST_F(SqliteBackend, AMissingFileBecomesADatabaseOfTheBackEnd) {
    open();
    EXPECT_EQ(query("PRAGMA application_id"), std::to_string(sqliteApplicationId));
    EXPECT_EQ(query("PRAGMA user_version"), "2");
    EXPECT_EQ(query("PRAGMA journal_mode"), "wal");
}

TEST_F(SqliteBackend, AnEmptyFileBecomesADatabaseOfTheBackEnd) {
    writeText(file, "");
    open();
    EXPECT_EQ(query("PRAGMA user_version"), "2");
}

TEST_F(SqliteBackend, AnUnknownTagHasItsOwnErrorCode) {
    open();
    RdbTag tag = tagNamed("host1");
    EXPECT_EQ(backend->tags()->get(tag).code, errorNoSuchTag);
    EXPECT_EQ(put("host1", "v"), errorNoSuchTag);
}

TEST_F(SqliteBackend, AnImportedTagIsFoundWithItsClassTypeAndFlag) {
    openWithTag("host1");
    RdbTag tag = tagNamed("host1");
    ASSERT_EQ(backend->tags()->get(tag).code, 0);
    EXPECT_EQ(tag.tagclass, RDB_TAG_CLASS_USABLE);
    EXPECT_EQ(tag.valuetype, RDB_VALUE_TYPE_TEXT);
    EXPECT_EQ(tag.importflag, 1);
}

TEST_F(SqliteBackend, ASecondImportReplacesTheTagAndKeepsItsValues) {
    openWithTag("host1");
    ASSERT_EQ(put("host1", "v"), 0);
    RdbTag tag = usableTag("host1");
    tag.tagclass = 3;
    ASSERT_EQ(backend->tags()->import(tag).code, 0);
    EXPECT_EQ(query("SELECT count(*) || class FROM tag"), "13");
    EXPECT_EQ(query("SELECT value FROM current_values WHERE name = 'host1'"), "v");
}

TEST_F(SqliteBackend, APutForATagOfAnotherClassIsRefused) {
    open();
    RdbTag tag = usableTag("host1");
    tag.tagclass = 3;
    ASSERT_EQ(backend->tags()->import(tag).code, 0);
    EXPECT_EQ(put("host1", "v"), errorTagNotUsable);
}

TEST_F(SqliteBackend, APutReplacesTheCurrentValueAndAddsToTheHistory) {
    openWithTag("host1");
    ASSERT_EQ(put("host1", "first"), 0);
    ASSERT_EQ(put("host1", "second"), 0);
    EXPECT_EQ(query("SELECT group_concat(value) FROM snapshot"), "second");
    EXPECT_EQ(query("SELECT group_concat(value) FROM past_values"), "first,second");
}

TEST_F(SqliteBackend, AfterAPutSqliteUsesLessMemoryThanTwentyPages) {
    openWithTag("host1");
    ASSERT_EQ(put("host1", "v"), 0);
    constexpr sqlite3_int64 sizeOfTwentyPages = 20 * 4096;
    EXPECT_LT(sqlite3_memory_used(), sizeOfTwentyPages);
}

TEST_F(SqliteBackend, APutHasTheServersTimeInMilliseconds) {
    openWithTag("host1");
    RdbSnapshot record = recordOf("host1", "v");
    record.time = 12345;
    ASSERT_EQ(backend->tags()->put({&record, 1}).code, 0);
    EXPECT_EQ(query("SELECT abs(time_ms / 1000 - strftime('%s', 'now')) < 60 FROM snapshot"), "1");
    EXPECT_EQ(query("SELECT time GLOB '20[0-9][0-9]-[01][0-9]-[0-3][0-9]T[0-2][0-9]:[0-5][0-9]:[0-5][0-9].[0-9][0-9]"
                    "[0-9]Z' FROM current_values"),
              "1");
}

TEST_F(SqliteBackend, AValueIsStoredByItsLengthNotUpToATerminator) {
    openWithTag("host1");
    RdbSnapshot record = recordOf("host1", "abcdef");
    record.valuelen = 3;
    ASSERT_EQ(backend->tags()->put({&record, 1}).code, 0);
    EXPECT_EQ(query("SELECT value FROM snapshot"), "abc");
    std::memcpy(record.value, "a\0b", 3);
    ASSERT_EQ(backend->tags()->put({&record, 1}).code, 0);
    EXPECT_EQ(query("SELECT hex(value) FROM snapshot"), "610062");
}

TEST_F(SqliteBackend, AnEmptyValueIsStored) {
    openWithTag("host1");
    ASSERT_EQ(put("host1", ""), 0);
    EXPECT_EQ(query("SELECT count(*) FROM current_values WHERE value = ''"), "1");
}

TEST_F(SqliteBackend, ANameIsNotInterpretedAsSql) {
    const std::string name = "x'); DROP TABLE tag; --";
    openWithTag(name);
    ASSERT_EQ(put(name, name), 0);
    EXPECT_EQ(query("SELECT value FROM current_values"), name);
}

TEST_F(SqliteBackend, SeveralRecordsArePutTogetherOrNotAtAll) {
    openWithTag("a");
    const RdbSnapshot records[2] = {recordOf("a", "1"), recordOf("unknown", "2")};
    EXPECT_EQ(backend->tags()->put(records).code, errorNoSuchTag);
    EXPECT_EQ(query("SELECT count(*) FROM history"), "0");
}

TEST_F(SqliteBackend, ARepetitionOnlyConfirms) {
    openWithTag("a");
    ASSERT_EQ(put("a", "v"), 0);
    EXPECT_EQ(query("SELECT time_ms = confirmed_ms FROM snapshot"), "1");
    makeForeign("UPDATE snapshot SET time_ms = 1, confirmed_ms = 2");
    backend->close();
    open();
    ASSERT_EQ(put("a", "v"), 0);
    EXPECT_EQ(query("SELECT time_ms FROM snapshot"), "1");
    EXPECT_EQ(query("SELECT abs(confirmed_ms / 1000 - strftime('%s', 'now')) < 60 FROM snapshot"), "1");
    EXPECT_EQ(query("SELECT confirmed > '2020' AND time < '1971' FROM current_values"), "1");
    EXPECT_EQ(query("SELECT count(*) FROM history"), "1");
    makeForeign("UPDATE snapshot SET confirmed_ms = 2");
    backend->close();
    open();
    ASSERT_EQ(put("a", "w"), 0);
    EXPECT_EQ(query("SELECT time_ms = confirmed_ms AND time_ms > 2 FROM snapshot"), "1");
}

TEST_F(SqliteBackend, AnotherTypeIsAChange) {
    openWithTag("a");
    RdbSnapshot record = recordOf("a", "1");
    ASSERT_EQ(backend->tags()->put({&record, 1}).code, 0);
    record.valuetype = 5;
    ASSERT_EQ(backend->tags()->put({&record, 1}).code, 0);
    EXPECT_EQ(query("SELECT group_concat(type) FROM history"), "6,5");
}

TEST_F(SqliteBackend, RecordsOfOneTagAreComparedInTheirOrder) {
    openWithTag("a");
    ASSERT_EQ(put("a", "1"), 0);
    const RdbSnapshot records[3] = {recordOf("a", "2"), recordOf("a", "2"), recordOf("a", "1")};
    ASSERT_EQ(backend->tags()->put(records).code, 0);
    EXPECT_EQ(query("SELECT group_concat(value) FROM past_values"), "1,2,1");
}

TEST_F(SqliteBackend, TheHistoryKeepsTheNewestChangesOfATag) {
    const struct {
        const char* option;
        std::string kept;
        std::string oldest;
    } rows[] = {
        {"?history=3", "3", "1499"}, {"?history=1", "1", "newest"}, {"?history=0", "0", ""}, {"", "1000", "502"}};
    for (const auto& row : rows) {
        backend = backendFor("sqlite://" + file + row.option);
        openWithTag("a");
        ASSERT_EQ(backend->tags()->import(usableTag("b")).code, 0);
        makeForeign("DELETE FROM history; DELETE FROM snapshot");
        makeForeign(
            "INSERT INTO history(tag, time_ms, type, value) SELECT id, 1, 6, 'other' FROM tag WHERE name = 'b'");
        makeForeign("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1500) INSERT INTO "
                    "history(tag, time_ms, type, value) SELECT (SELECT id FROM tag WHERE name = 'a'), i, 6, i FROM n");
        backend->close();
        open();
        ASSERT_EQ(put("a", "newest"), 0);
        EXPECT_EQ(query("SELECT count(*) FROM past_values WHERE name = 'a'"), row.kept);
        EXPECT_EQ(query("SELECT value FROM past_values WHERE name = 'a' LIMIT 1"), row.oldest);
        EXPECT_EQ(query("SELECT count(*) FROM past_values WHERE name = 'b'"), "1");
        backend->close();
    }
}

TEST(SqliteUrl, TakesTheLengthOfTheHistoryOnly) {
    for (const char* url : {"sqlite:///a", "sqlite:///a?history=0", "sqlite:///a?history=100000"})
        EXPECT_TRUE(makeBackend(url, {}).ok()) << url;
    for (const char* url : {"sqlite:///a?history=100001", "sqlite:///a?history=", "sqlite:///a?history=-1",
                            "sqlite:///a?history=x", "sqlite:///a?history=1&history=1", "sqlite:///a?expire=900"})
        EXPECT_EQ(makeBackend(url, {}).status().code, errorBadUrl) << url;
    EXPECT_EQ(makeBackend("sqlite:///a?b=c", {}).status().reason,
              "malformed url: it has options other than one history (write ? as %3F in a path)");
}

TEST_F(SqliteBackend, EachPutIsFlushedToTheDisk) {
    openWithTag("a");
    for (int i = 0; i < 3; ++i) {
        const int before = flushCount();
        ASSERT_EQ(put("a", std::to_string(i)), 0);
        EXPECT_GT(flushCount(), before);
    }
}

TEST_F(SqliteBackend, ValuesRemainAfterTheServiceEnds) {
    openWithTag("a");
    ASSERT_EQ(put("a", "v"), 0);
    backend->close();
    open();
    RdbTag tag = tagNamed("a");
    EXPECT_EQ(backend->tags()->get(tag).code, 0);
    EXPECT_EQ(query("SELECT value FROM current_values"), "v");
}

TEST_F(SqliteBackend, ADatabaseOfAnotherProgramIsRefusedAndUnchanged) {
    for (const char* mode : {"PRAGMA journal_mode = DELETE", "PRAGMA journal_mode = WAL"}) {
        makeForeign((std::string(mode) + "; CREATE TABLE mine" + std::string(1, mode[22]) + "(x)").c_str());
        const std::string before = readText(file);
        const Status outcome = backend->open(plainWaiter);
        backend->close();
        EXPECT_EQ(outcome.code, errorBackendFailed);
        EXPECT_EQ(outcome.reason, "the file is a database of another program");
        EXPECT_TRUE(readText(file) == before);
    }
}

TEST_F(SqliteBackend, AFileThatIsNotADatabaseIsRefusedAndUnchanged) {
    for (const std::string& text : {std::string("x"), std::string(5000, 'x'), std::string("SQLite format 3")}) {
        writeText(file, text);
        EXPECT_EQ(backend->open(plainWaiter).reason, "the file is not a database");
        backend->close();
        EXPECT_TRUE(readText(file) == text);
    }
}

TEST_F(SqliteBackend, ADatabaseOfAnotherVersionIsRefusedAndLeftUntouched) {
    open();
    backend->close();
    for (const char* version : {"PRAGMA user_version = 1", "PRAGMA user_version = 3"}) {
        makeForeign(version);
        const std::string before = readText(file);
        EXPECT_EQ(backend->open(plainWaiter).reason, "the file is a database of another version of this program");
        backend->close();
        EXPECT_TRUE(readText(file) == before);
    }
}

TEST_F(SqliteBackend, WithAMissingTableOpenFails) {
    open();
    backend->close();
    makeForeign("DROP TABLE snapshot");
    EXPECT_EQ(backend->open(plainWaiter).code, errorBackendFailed);
}

TEST_F(SqliteBackend, WithAFolderInPlaceOfTheFileOpenFails) {
    std::filesystem::create_directory(file);
    EXPECT_EQ(backend->open(plainWaiter).code, errorBackendFailed);
}

TEST_F(SqliteBackend, InAMissingFolderOpenFails) {
    EXPECT_EQ(backendFor("sqlite://" + folder.file("no/rdb.db"))->open(plainWaiter).code, errorBackendFailed);
}

TEST_F(SqliteBackend, AFileThatWasRemovedFailsTheNextRequest) {
    openWithTag("a");
    ASSERT_EQ(unlink(file.c_str()), 0);
    EXPECT_EQ(put("a", "v"), errorBackendFailed);
    backend->close();
    open();
    EXPECT_EQ(put("a", "v"), errorNoSuchTag);
}

TEST_F(SqliteBackend, AFileThatWasReplacedFailsTheNextRequest) {
    openWithTag("a");
    ASSERT_TRUE(backendFor("sqlite://" + folder.file("other.db"))->open(plainWaiter).ok());
    std::filesystem::rename(folder.file("other.db"), file);
    RdbTag tag = tagNamed("a");
    EXPECT_EQ(backend->tags()->get(tag).code, errorBackendFailed);
}

TEST_F(SqliteBackend, WithACorruptDatabaseOpenFails) {
    openWithTag("a");
    backend->close();
    const auto pages = std::filesystem::file_size(file);
    std::fstream damaged(file, std::ios::in | std::ios::out | std::ios::binary);
    damaged.seekp(4096);
    damaged << std::string(pages - 4096, '\xa5');
    damaged.close();
    EXPECT_EQ(backend->open(plainWaiter).code, errorBackendFailed);
}

//  The database is on a separate file system of 512 KiB.
TEST_F(SqliteBackend, AFullDiskFailsTheRequestAndNothingIsLost) {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", folder.path().c_str(), "tmpfs", 0, "size=512k") != 0)
        GTEST_SKIP() << "needs root to mount a file system";
    openWithTag("a");
    int code = 0;
    int puts = 0;
    while ((code = put("a", std::to_string(puts) + std::string(990, 'x'))) == 0 && puts < 10000)
        ++puts;
    EXPECT_EQ(code, errorBackendFailed);
    EXPECT_EQ(query("SELECT count(*) FROM history"), std::to_string(puts));
    backend->close();
    umount2(folder.path().c_str(), MNT_DETACH);
}

TEST_F(SqliteBackend, TwoServicesMayShareTheFile) {
    open();
    EXPECT_EQ(backendFor("sqlite://" + file)->open(plainWaiter).code, 0);  // a second service on the same file
    EXPECT_EQ(backend->tags()->import(usableTag("a")).code, 0);
}

TEST_F(SqliteBackend, ServesTagsAndRefusesMessagesThroughTheHandle) {
    Events events;
    const int handle = rdb_create();
    ASSERT_EQ(rdb_setmessagenotify(handle, onEvent, &events), 0);
    ASSERT_EQ(rdb_connectex(handle, ("sqlite://" + file).c_str(), "u", "p", 0), 0);
    ASSERT_EQ(events.take(), RDB_EVENT_CONNECTED);
    EXPECT_EQ(rdb_callmsg(handle, "{}", 2, onReply, nullptr), errorNotSupported);

    RdbTag tag = usableTag("host1");
    std::int32_t result = -1;
    EXPECT_EQ(rdb_taginport(handle, RDB_TAGINPORT_MODE, &tag, &result), 0);
    const RdbSnapshot record = recordOf("host1", "2001:db8::1");
    EXPECT_EQ(rdb_objputsnapshot(handle, &record, 1), 0);
    EXPECT_EQ(query("SELECT value FROM current_values"), "2001:db8::1");
    rdb_disconnect(handle);
    rdb_destory(handle);
    EXPECT_TRUE(workersEnded());
}

}  // namespace
