//  The files of an open database: checks that they are still the open ones, and that only SQLite has changed them.
//
//      DIR/NAME        the database
//      DIR/NAME-wal    the log: committed data that is not in the database yet; empty after most requests
//      DIR/NAME-shm    the index of the log, shared by all processes that have the database open
//
//  SQLite replaces none of these files while a connection is open. An empty log contains nothing to write: if the
//  database then changes without a commit (PRAGMA data_version), another program wrote to it, such as cp(1) or
//  truncate(1). This cannot be detected if a reader prevents the log from being emptied, or if another process has just
//  committed. Then only the header of the database is examined, and a check of the value detects a lost value.
#ifndef RDBAPI_OPEN_SQLITE_FILES_H
#define RDBAPI_OPEN_SQLITE_FILES_H

#include "engine/status.h"
#include "sqlite/database.h"

#include <sys/stat.h>

namespace rdbopen {

class SqliteFiles {
public:
    //  Records the state of the files after a request. Fails if a file is missing or the database has another name.
    //  Requires: database is open at path, with write-ahead logging, and has been written.
    Status record(const std::string& path, SqliteDatabase& database);

    //  Returns true if the names still refer to the recorded files.
    bool areNamed() const;

    //  Ok if the files are as recorded, or as SQLite has changed them since; otherwise the reason describes the change.
    Status verify(SqliteDatabase& database);

    //  Removes files that no longer match, so that no connection applies them: the index, and the log of a database
    //  that was replaced or overwritten. Keeps a file that changed after it was recorded. Requires: verify has failed,
    //  and database was closed without a checkpoint.
    void removeRemains() const;

private:
    struct File {
        std::string path;
        bool exists = false;
        struct stat inode {};
    };

    static File inspect(const std::string& path);
    static bool sameFile(const File& left, const File& right);
    static bool sameBytes(const File& left, const File& right);

    File database_, log_, index_;
    std::int64_t version_ = 0;  // PRAGMA data_version
    bool indexLost_ = false;
    bool databaseLost_ = false;
};

}  // namespace rdbopen

#endif
