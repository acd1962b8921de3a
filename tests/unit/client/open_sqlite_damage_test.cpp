//  A damaged database is renamed, and its value is written to a new database. Files of other programs are not renamed.
#include "sqlite/damage.h"

#include "files/lock.h"
#include "open_recorded_disk.h"
#include "open_sqlite_fixture.h"

#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>
#include <vector>

namespace {

using namespace opentest;
using namespace rdbopen;

constexpr std::size_t page = 4096;

class SqliteDamage : public SqliteValueFixture {
protected:
    //  Puts so many values that the history has several pages.
    void openAndPutMany() {
        openAndPut("first");
        for (int i = 0; i < 40; ++i)
            ASSERT_EQ(put("host1", std::to_string(i) + std::string(900, 'x')), 0);
        ASSERT_EQ(put("host1", "first"), 0);
    }
    //  Overwrites one page with garbage, as a failing disk does. If it is the root page of the history, only a put that
    //  changes the value detects this, because nothing else reads the page.
    void spoil(std::int64_t number) const {
        std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
        stream.seekp((number - 1) * static_cast<std::int64_t>(page));
        stream << std::string(page, '\xa5');
    }
    void spoilTable(const std::string& name) {
        spoil(std::stoll(query(("SELECT rootpage FROM sqlite_schema WHERE name = '" + name + "'").c_str())));
    }
    void cutTo(std::size_t size) const { std::filesystem::resize_file(file, size); }
    void cutShort() const { cutTo(3 * page); }
    std::string movedTo(const std::string& name) const {
        return "the file was damaged and is now " + name + "; a new one takes its place";
    }
    std::string failureToOpen() const {
        Status outcome = backend->open(plainWaiter);
        backend->close();
        EXPECT_EQ(outcome.code, errorBackendFailed);
        return outcome.reason;
    }
    void expectMovedAndWrittenAgain(const std::string& value) {
        const std::string damaged = readText(file);
        EXPECT_EQ(failureToOpen(), movedTo(file + ".damaged"));
        EXPECT_TRUE(readText(file + ".damaged") == damaged);
        openAndCheck();
        EXPECT_EQ(current(), value);
        EXPECT_EQ(query("PRAGMA integrity_check"), "ok");
        backend->close();
        EXPECT_EQ(entriesOf(folder.path().c_str()), 2U);
    }
    std::size_t damagedFiles() const {
        std::size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(folder.path()))
            if (entry.path().string().find(".damaged") != std::string::npos)
                ++count;
        return count;
    }
};

struct Cut {
    const char* name;
    std::function<std::size_t(std::size_t)> length;
};

class SqliteCut : public SqliteDamage, public testing::WithParamInterface<Cut> {
protected:
    void cut() const { cutTo(GetParam().length(std::filesystem::file_size(file))); }
};

const Cut cuts[] = {
    {"ToItsMarks", [](std::size_t) { return 72; }},
    {"ToItsHeader", [](std::size_t) { return 100; }},
    {"ToOnePage", [](std::size_t) { return page; }},
    {"InsideAPage", [](std::size_t) { return 2 * page + 1000; }},
    {"ToThreePages", [](std::size_t) { return 3 * page; }},
    {"ByAPage", [](std::size_t size) { return size - page; }},
    {"ByAByte", [](std::size_t size) { return size - 1; }},
};

TEST_P(SqliteCut, ATruncatedFileIsRenamedAtTheStart) {
    openAndPutMany();
    backend->close();
    cut();
    expectMovedAndWrittenAgain("first");
}

TEST_P(SqliteCut, TruncationWhileTheServiceRunsIsDetectedByAPut) {
    openAndPutMany();
    cut();
    EXPECT_EQ(put("host1", "second"), errorBackendFailed);
    desired.recordValue(recordOf("host1", "second"), errorBackendFailed, {});
    backend->close();
    expectMovedAndWrittenAgain("second");
}

TEST_P(SqliteCut, TruncationWhileTheServiceRunsIsDetectedByACheck) {
    openAndPutMany();
    cut();
    EXPECT_EQ(backend->probe().code, errorBackendFailed);
    backend->close();
    expectMovedAndWrittenAgain("first");
}

INSTANTIATE_TEST_SUITE_P(Each, SqliteCut, testing::ValuesIn(cuts), [](const auto& test) { return test.param.name; });

TEST_F(SqliteDamage, ALockFileThatCannotBeLockedIsNamed) {
    openAndPutMany();
    backend->close();
    cutTo(page);
    std::filesystem::create_directory(folder.file(".rdb.db.addrpubd.lock"));
    EXPECT_EQ(backend->open(plainWaiter).reason,
              "the file may be damaged, and cannot be checked: the lock file cannot be locked: " + errorText(EISDIR));
}

TEST_F(SqliteDamage, AFileWithAMalformedSchemaIsRenamed) {
    openAndPut("first");
    backend->close();
    makeForeign("PRAGMA writable_schema = ON; UPDATE sqlite_schema SET sql = 'CREATE x' WHERE name = 'snapshot'");
    expectMovedAndWrittenAgain("first");
}

TEST_F(SqliteDamage, AFileWithADamagedHeaderButOurMarksIsRenamed) {
    openAndPut("first");
    backend->close();
    std::string bytes = readText(file);
    bytes[16] = bytes[17] = 7;  // not a valid page size
    writeText(file, bytes);
    expectMovedAndWrittenAgain("first");
}

//  Opening does not read the root page of the history.
TEST_F(SqliteDamage, DamageThatOnlyAPutDetectsRenamesTheFileAtTheNextOpen) {
    openAndPutMany();
    backend->close();
    spoilTable("history");
    open();
    EXPECT_EQ(put("host1", "second"), errorBackendFailed);
    desired.recordValue(recordOf("host1", "second"), errorBackendFailed, {});
    backend->close();
    expectMovedAndWrittenAgain("second");
}

TEST_F(SqliteDamage, AnUndamagedReplacementIsNotRenamed) {
    openAndPutMany();
    backend->close();
    const std::string sound = readText(file);
    spoilTable("history");
    open();
    EXPECT_EQ(put("host1", "second"), errorBackendFailed);
    backend->close();
    writeText(file, sound);
    openAndCheck();
    EXPECT_EQ(current(), "first");
    EXPECT_EQ(damagedFiles(), 0U);
}

TEST_F(SqliteDamage, ADamagedReplacementOfAnotherProgramIsNotRenamed) {
    openAndPutMany();
    backend->close();
    spoilTable("history");
    open();
    EXPECT_EQ(put("host1", "second"), errorBackendFailed);
    backend->close();
    std::string bytes = readText(file).substr(0, 2 * page);
    bytes[71] = 'x';  // a byte of application_id
    writeText(file, bytes);
    EXPECT_EQ(failureToOpen(), "the file is a database of another program");
    EXPECT_TRUE(readText(file) == bytes);
    EXPECT_EQ(damagedFiles(), 0U);
}

TEST_F(SqliteDamage, AnotherServiceThatDetectedTheDamageKeepsTheNewFile) {
    const auto second = backendFor("sqlite://" + file);
    openAndPutMany();
    backend->close();
    spoilTable("history");
    open();
    ASSERT_EQ(second->open(plainWaiter).code, 0);
    const RdbSnapshot record = recordOf("host1", "second");
    EXPECT_EQ(second->tags()->put({&record, 1}).code, errorBackendFailed);
    EXPECT_EQ(put("host1", "second"), errorBackendFailed);
    backend->close();
    EXPECT_EQ(failureToOpen(), movedTo(file + ".damaged"));
    openAndCheck();
    second->close();
    EXPECT_EQ(second->open(plainWaiter).code, 0);
    EXPECT_EQ(second->tags()->put({&record, 1}).code, 0);
    EXPECT_EQ(current(), "second");
    EXPECT_EQ(damagedFiles(), 1U);
}

TEST_F(SqliteDamage, ServicesThatDetectItTogetherRenameTheFileOnce) {
    constexpr int count = 4;
    for (int round = 0; round < 10; ++round) {
        openAndPutMany();
        backend->close();
        cutShort();
        std::atomic<int> ready{0};
        std::atomic<int> moves{0};
        std::atomic<int> failures{0};
        std::vector<std::thread> services;
        for (int i = 0; i < count; ++i)
            services.emplace_back([&, i] {
                const auto service = backendFor("sqlite://" + file);
                const std::string name = "service" + std::to_string(i);
                const RdbSnapshot record = recordOf(name, name);
                for (++ready; ready < count;)
                    ;
                for (int attempt = 0; attempt < 1000; ++attempt) {
                    const Status outcome = service->open(plainWaiter);
                    moves += outcome.reason == movedTo(file + ".damaged") ? 1 : 0;
                    if (outcome.code == 0 && service->tags()->import(usableTag(name)).code == 0 &&
                        service->tags()->put({&record, 1}).code == 0)
                        return;
                    service->close();
                }
                ++failures;
            });
        for (std::thread& service : services)
            service.join();
        EXPECT_EQ(failures, 0);
        EXPECT_EQ(moves, 1);
        EXPECT_EQ(damagedFiles(), 1U);
        EXPECT_EQ(query("SELECT count(*) FROM current_values"), std::to_string(count));
        std::filesystem::remove(file);
        std::filesystem::remove(file + ".damaged");
    }
}

TEST_F(SqliteDamage, TheFirstFreeNameIsUsedAndWithoutOneTheFileIsNotRenamed) {
    openAndPutMany();
    backend->close();
    cutShort();
    const std::string damaged = readText(file);
    for (int number = 0; number <= 9; ++number) {
        const std::string name = file + ".damaged" + (number == 0 ? "" : "." + std::to_string(number));
        writeText(file, damaged);
        EXPECT_EQ(failureToOpen(), movedTo(name));
        EXPECT_TRUE(readText(name) == damaged);
        writeText(name, "number " + std::to_string(number));
    }
    writeText(file, damaged);
    for (int attempt = 0; attempt < 2; ++attempt)
        EXPECT_EQ(failureToOpen(), "the file is damaged and stays as it is, because all names from rdb.db.damaged to "
                                   "rdb.db.damaged.9 are in use");
    EXPECT_TRUE(readText(file) == damaged);
    EXPECT_EQ(damagedFiles(), 10U);
    EXPECT_EQ(readText(file + ".damaged"), "number 0");
    std::filesystem::remove(file + ".damaged.4");
    EXPECT_EQ(failureToOpen(), movedTo(file + ".damaged.4"));
}

TEST_F(SqliteDamage, ANameThatALogUsesIsNotFree) {
    openAndPutMany();
    backend->close();
    cutShort();
    writeText(file + ".damaged-wal", "of another file");
    EXPECT_EQ(failureToOpen(), movedTo(file + ".damaged.1"));
    EXPECT_EQ(readText(file + ".damaged-wal"), "of another file");
}

TEST_F(SqliteDamage, ALogWithContentIsRenamedWithTheFile) {
    openAndPutMany();
    backend->close();
    spoilTable("history");
    open();
    SqliteDatabase reader;  // prevents SQLite from emptying the log
    ASSERT_TRUE(reader.open(file).ok());
    ASSERT_TRUE(reader.run("BEGIN; SELECT * FROM tag").ok());
    ASSERT_EQ(backend->tags()->import(usableTag("host2")).code, 0);
    EXPECT_EQ(put("host1", "second"), errorBackendFailed);
    const std::string log = readText(file + "-wal");
    EXPECT_GT(log.size(), 0U);
    backend->close();
    EXPECT_EQ(failureToOpen(), movedTo(file + ".damaged"));
    EXPECT_TRUE(readText(file + ".damaged-wal") == log);
    for (const char* suffix : {"", "-wal", "-shm"})
        EXPECT_FALSE(std::filesystem::exists(file + suffix)) << suffix;
    openAndCheck();
    reader.close();
    check();
    EXPECT_EQ(current(), "first");
}

//  SQLite detects the damage when it reads the first page. At that time it has not yet used the log.
TEST_F(SqliteDamage, ALogThatWasNotAppliedIsRenamedUnchanged) {
    openAndPutMany();
    SqliteDatabase reader;
    ASSERT_TRUE(reader.open(file).ok());
    ASSERT_TRUE(reader.run("BEGIN; SELECT * FROM tag").ok());
    ASSERT_EQ(backend->tags()->import(usableTag("host1")).code, 0);
    std::string bytes = readText(file);
    const std::string log = readText(file + "-wal");
    ASSERT_GT(log.size(), 0U);
    reader.close();
    backend->close();
    bytes[100] = 'x';  // not a valid page type
    writeText(file, bytes);
    writeText(file + "-wal", log);
    EXPECT_EQ(failureToOpen(), movedTo(file + ".damaged"));
    EXPECT_TRUE(readText(file + ".damaged") == bytes);
    EXPECT_TRUE(readText(file + ".damaged-wal") == log);
}

TEST_F(SqliteDamage, TheFileIsRenamedUnderTheLockOfTheNewFile) {
    openAndPutMany();
    backend->close();
    cutShort();
    int held = 0;
    setBeforeFlush([&](int) {
        if (!std::filesystem::exists(file + ".damaged"))
            return 0;
        FileLock lock;
        EXPECT_EQ(lock.acquire(folder.file(".rdb.db.addrpubd.lock"), std::chrono::milliseconds(0)).reason,
                  errorText(EWOULDBLOCK));
        ++held;
        return 0;
    });
    EXPECT_EQ(failureToOpen(), movedTo(file + ".damaged"));
    setBeforeFlush(nullptr);
    EXPECT_GT(held, 0);
}

//  Some versions of SQLite do not maintain the page count in the header. After their writes this count belongs to an
//  earlier write.
TEST_F(SqliteDamage, ACountOfPagesThatBelongsToAnEarlierWriteIsIgnored) {
    openAndPut("first");
    backend->close();
    std::string bytes = readText(file);
    ++bytes[27];  // change counter
    ++bytes[31];  // page count
    writeText(file, bytes);
    open();
    EXPECT_EQ(current(), "first");
}

TEST_F(SqliteDamage, AnotherProgramsDatabaseStaysAsItIs) {
    for (const char* marks : {"PRAGMA user_version = 2", "PRAGMA application_id = 1; PRAGMA user_version = 2",
                              "PRAGMA application_id = 1094996036; PRAGMA user_version = 3"}) {
        makeForeign((std::string(marks) + "; CREATE TABLE mine(x); CREATE TABLE more(x)").c_str());
        for (const std::size_t size : {2 * page, page, std::size_t{100}}) {
            cutTo(size);
            const std::string bytes = readText(file);
            for (int attempt = 0; attempt < 2; ++attempt)
                EXPECT_NE(failureToOpen().find("the file is a database of another"), std::string::npos);
            EXPECT_TRUE(readText(file) == bytes);
            EXPECT_EQ(entriesOf(folder.path().c_str()), 1U);
        }
        std::filesystem::remove(file);
    }
}

//  A checkpoint writes the header before the pages that follow. If it ends early, the file lacks pages, and the log
//  still contains them.
TEST_F(SqliteDamage, AFileWhoseLogHasTheMissingPagesIsUndamaged) {
    openAndPut("first");
    const std::string before = readText(file);
    SqliteDatabase reader;
    ASSERT_TRUE(reader.open(file).ok());
    ASSERT_TRUE(reader.run("BEGIN; SELECT * FROM tag").ok());
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(put("host1", std::to_string(i) + std::string(900, 'x')), 0);
    ASSERT_EQ(put("host1", "second"), 0);
    const std::string log = readText(file + "-wal");
    reader.close();
    backend->close();
    const std::string after = readText(file);
    ASSERT_GT(after.size(), before.size());
    writeText(file, after.substr(0, page) + before.substr(page));
    writeText(file + "-wal", log);
    open();
    EXPECT_EQ(current(), "second");
    EXPECT_EQ(query("PRAGMA integrity_check"), "ok");
}

TEST_F(SqliteDamage, APowerFailureAtAnyMomentLosesNeitherTheNewNorTheDamagedFile) {
    openAndPutMany();
    backend->close();
    cutShort();
    const std::string damaged = readText(file);
    startRecording(folder.path());
    EXPECT_EQ(backend->open(plainWaiter).reason, movedTo(file + ".damaged"));
    backend->close();
    openAndCheck();
    backend->close();
    stopRecording();
    const auto folders = cutsAtAnyMoment();
    EXPECT_GT(folders.size(), 20U);
    for (const FolderContent& content : folders) {
        const Folder after;
        for (const auto& [name, bytes] : content)
            writeText(after.file(name), bytes);
        const auto service = backendFor("sqlite://" + after.file("rdb.db"));
        if (service->open(plainWaiter).code != 0) {
            service->close();
            ASSERT_EQ(service->open(plainWaiter).code, 0);
        }
        EXPECT_EQ(desired.check(*service, {}).code, 0);
        EXPECT_EQ(desired.retry(*service, {}).code, 0);
        EXPECT_EQ(service->tags()->checkValue(recordOf("host1", "first")).code, 0);
        EXPECT_TRUE(readText(after.file("rdb.db.damaged")) == damaged);
    }
}

}  // namespace
