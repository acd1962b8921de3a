//  One SQLite connection and its prepared statements, closed by their destructors. Results are SQLite's own result
//  codes (https://www.sqlite.org/rescode.html), extended ones included.
//
//  Threads: one at a time.
#ifndef RDBAPI_OPEN_SQLITE_DATABASE_H
#define RDBAPI_OPEN_SQLITE_DATABASE_H

#include <cstdint>
#include <memory>
#include <sqlite3.h>
#include <string>
#include <string_view>

namespace rdbopen {

class SqliteStatement {
public:
    //  Bind parameter index, counted from 1. Texts are bound by length and must outlive the next reset.
    SqliteStatement& bind(int index, std::int64_t value);
    SqliteStatement& bind(int index, std::string_view text);

    //  Runs to the next row or to the end: SQLITE_ROW, SQLITE_DONE or an error.
    int step() { return sqlite3_step(statement_.get()); }

    //  Runs to the end and resets. Returns SQLITE_OK or the error.
    int run();

    std::int64_t column(int index) { return sqlite3_column_int64(statement_.get(), index); }

    //  The text of a column by its length; it lasts until the next step or reset.
    std::string_view text(int index);

    //  Makes it ready for the next use; ends its read transaction.
    void reset() { sqlite3_reset(statement_.get()); }

    explicit operator bool() const { return statement_ != nullptr; }

private:
    friend class SqliteDatabase;
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

class SqliteDatabase {
public:
    //  Opens the file at path for reading and writing. Fails when it is missing or when path leads through a link; SQLite
    //  checks the folders on the way before it opens the file, not while it does.
    int open(const std::string& path);

    //  Reads the first count bytes of the file and its size past SQLite's own handling: without a lock and without
    //  looking at a journal. It goes through SQLite's descriptor because closing another one would drop the locks that
    //  this process holds on the file (fcntl(2)).
    int readFirstBytes(void* bytes, int count, std::int64_t& size);

    //  Closes it; the last connection writes what is in the log into the file, and removes the log. Statements go first.
    void close() { connection_.reset(); }

    //  Closes it and leaves all files as they are.
    void abandon();

    //  Runs one or more statements and drops their rows.
    int run(const char* sql);

    //  Returns a statement, or an empty one when sql does not fit the schema.
    SqliteStatement prepare(const char* sql);

    //  Runs sql and returns the first column of its first row, or otherwise when there is none.
    std::int64_t number(const char* sql, std::int64_t otherwise);
    std::string text(const char* sql);

    //  PRAGMA data_version: a number that changes when another connection commits. Negative after a failure.
    std::int64_t dataVersion() { return number("PRAGMA data_version", -1); }

    //  Writes the log into the file and empties it, as far as other connections allow without waiting for them.
    void emptyLog();

    //  Frees the copies of pages in memory, so that the next statement reads the file.
    void dropPageCache() { sqlite3_db_release_memory(connection_.get()); }

    //  Returns the whole database as the bytes of a file; empty after a failure.
    std::string bytes();

    //  True inside BEGIN.
    bool inTransaction() const { return sqlite3_get_autocommit(connection_.get()) == 0; }

    //  SQLite's text for the last failure.
    std::string lastError() const;

    //  True when the last call failed because SQLite found the file damaged.
    bool lastResultIsDamage() const;

    //  True when the file that is open no longer has the name under which it was opened.
    //  Requires: open has succeeded.
    bool hasMoved();

    explicit operator bool() const { return connection_ != nullptr; }

private:
    struct Close {
        void operator()(sqlite3* connection) const { sqlite3_close(connection); }
    };
    std::unique_ptr<sqlite3, Close> connection_;
};

}  // namespace rdbopen

#endif
