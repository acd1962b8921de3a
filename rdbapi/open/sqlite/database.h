//  One SQLite connection and its prepared statements, closed by their destructors. The reason of a failure is the error
//  text of SQLite, "out of memory" if no connection exists, or the fixed text of readFirstBytes.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_SQLITE_DATABASE_H
#define RDBAPI_OPEN_SQLITE_DATABASE_H

#include "engine/status.h"

#include <cstdint>
#include <memory>
#include <sqlite3.h>
#include <string>
#include <string_view>

namespace rdbopen {

class SqliteStatement {
public:
    //  Bind the parameter with number index, counted from 1. text may contain zero bytes, is not copied, and must exist
    //  until the next reset.
    SqliteStatement& bind(int index, std::int64_t value);
    SqliteStatement& bind(int index, std::string_view text);

    //  Runs the statement to its next row or to its end. Returns whether there is a row.
    Result<bool> step();

    //  Runs the statement to its end and resets it.
    Status run();

    std::int64_t column(int index) { return sqlite3_column_int64(statement_.get(), index); }

    //  Returns the text of a column, which may contain zero bytes. Valid until the next step or reset.
    std::string_view text(int index);

    //  Prepares the statement for its next use, and ends the read transaction that step has begun.
    void reset() { sqlite3_reset(statement_.get()); }

private:
    friend class SqliteDatabase;
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

class SqliteDatabase {
public:
    //  Opens the file at path for reading and writing. Fails if the file is missing or if path contains a symbolic
    //  link. SQLite checks the folders of the path only before the open, so a later change of a folder is not detected.
    Status open(const std::string& path);

    //  Like open, but only for reading. shared: whether other connections may use the file at the same time; if false,
    //  SQLite takes no lock and creates no file.
    Status openReadOnly(const std::string& path, bool shared);

    //  Reads the first count bytes of the file directly, without a lock and without the journal. If the file is
    //  shorter, sets the remaining bytes to zero. Returns the size of the file, or 0 if the size is one byte. Uses
    //  SQLite's descriptor, because closing another descriptor would release this process's locks on the file
    //  (fcntl(2)).
    Result<std::int64_t> readFirstBytes(void* bytes, int count);

    //  Closes the connection. If the file has no other connection and this one may write, SQLite writes the log into
    //  the file and removes the log.
    //  Requires: all statements are destroyed.
    void close() { connection_.reset(); }

    //  Closes the connection and leaves all files unchanged.
    void abandon();

    //  Runs one or more statements and discards their rows.
    Status run(const char* sql);

    //  Ends the transaction and discards its changes. If this fails, closing the connection ends the transaction.
    void rollBack();

    //  Returns a prepared statement. Fails if SQLite rejects sql, for example because it does not match the schema.
    Result<SqliteStatement> prepare(const char* sql);

    //  Run sql and return the first column of its first row. Fail if sql fails or there is no row.
    Result<std::int64_t> number(const char* sql);
    Result<std::string> text(const char* sql);

    //  Returns PRAGMA data_version, a number that changes when another connection commits.
    Result<std::int64_t> dataVersion() { return number("PRAGMA data_version"); }

    //  Writes the log into the file and empties the log, as far as possible without waiting for other connections.
    void emptyLog();

    //  Frees the cached pages, so that the next statement reads the file.
    void dropPageCache() { sqlite3_db_release_memory(connection_.get()); }

    //  Returns the whole database as the bytes of a file.
    Result<std::string> bytes();

    //  Returns whether a transaction was begun and has not ended.
    bool inTransaction() const { return sqlite3_get_autocommit(connection_.get()) == 0; }

    //  Returns errorBackendFailed with SQLite's text for the last result as the reason.
    Status lastFailure() const;

    //  Returns true if the last call failed because SQLite found that the file is damaged or is not a database.
    bool lastResultIsDamage() const;

    //  Returns true if the open file no longer has the name under which it was opened.
    //  Requires: open has succeeded.
    bool hasMoved();

private:
    struct Close {
        void operator()(sqlite3* connection) const { sqlite3_close(connection); }
    };
    Status openWith(const std::string& path, int flags);

    std::unique_ptr<sqlite3, Close> connection_;
};

}  // namespace rdbopen

#endif
