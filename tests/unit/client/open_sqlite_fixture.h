//  Shared by the tests of the back end sqlite: a back end with a database in a temporary folder, and a second
//  connection that reads it, like the sqlite3 program.
#ifndef TESTS_UNIT_OPEN_SQLITE_FIXTURE_H
#define TESTS_UNIT_OPEN_SQLITE_FIXTURE_H

#include "engine/desired_state.h"
#include "open_support.h"
#include "sqlite/schema.h"

#include <gtest/gtest.h>

namespace opentest {

//  Returns the first column of the first row; empty without a row or after a failure.
inline std::string textOf(rdbopen::SqliteDatabase& database, const char* sql) {
    const rdbopen::Result<std::string> text = database.text(sql);
    return text.ok() ? *text : std::string();
}

class SqliteFixture : public testing::Test {
protected:
    void open() {
        const rdbopen::Status outcome = backend->open(plainWaiter);
        ASSERT_EQ(outcome.code, 0) << outcome.reason;
    }
    void openWithTag(const std::string& name) {
        open();
        ASSERT_EQ(backend->tags()->import(usableTag(name)).code, 0);
    }
    int put(const std::string& name, const std::string& value) {
        const RdbSnapshot record = recordOf(name, value);
        return backend->tags()->put({&record, 1}).code;
    }
    std::string query(const char* sql) {
        rdbopen::SqliteDatabase reader;
        EXPECT_TRUE(reader.open(file).ok());
        return textOf(reader, sql);
    }
    void makeForeign(const char* sql) {
        rdbopen::SqliteDatabase database;
        std::ofstream(file, std::ios::app).close();
        ASSERT_TRUE(database.open(file).ok());
        ASSERT_EQ(database.run(sql).reason, "");
    }

    Folder folder;
    const std::string file = folder.file("rdb.db");
    std::unique_ptr<rdbopen::Backend> backend = backendFor("sqlite://" + file);
};

//  One tag and its value. The function check() writes both again after a loss.
class SqliteValueFixture : public SqliteFixture {
protected:
    //  Opens the database and puts `value`, as the worker does for a user of the handle.
    void openAndPut(const std::string& value) {
        open();
        desired.recordTag(usableTag("host1"), backend->tags()->import(usableTag("host1")).code);
        desired.recordValue(recordOf("host1", value), put("host1", value), {});
        ASSERT_FALSE(desired.pending());
    }
    //  Opens the database and checks it, as the worker does after a loss.
    void openAndCheck() {
        open();
        check();
    }
    void check() {
        ASSERT_EQ(backend->probe().code, 0);
        ASSERT_EQ(desired.check(*backend, {}).code, 0);
        ASSERT_EQ(desired.retry(*backend, {}).code, 0);
        ASSERT_FALSE(desired.pending());
    }
    std::string current() { return query("SELECT value FROM current_values WHERE name = 'host1'"); }

    rdbopen::DesiredState desired;
};

}  // namespace opentest

#endif
