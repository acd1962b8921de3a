//  Checks the files of an open database: they must still have their names, and only SQLite may have changed them.
//
//      DIR/NAME        the database
//      DIR/NAME-wal    the write-ahead log: committed data that is not in the database yet; empty after most requests
//      DIR/NAME-shm    the index of the log, shared by all processes that use the database
//
//  While a connection is open, SQLite replaces none of these files. While the log is empty, SQLite has nothing to write
//  into the database file. So, if this file changes without a commit (PRAGMA data_version), another program such as
//  cp(1) or truncate(1) has written to it. Such a change is not detected if a reader prevents the log from being
//  emptied, or if another process has just committed. In these two cases only the header of the database is examined,
//  and a later checkValue (engine/backend.h) detects a lost value. A change before `record` is not detected, either.
#ifndef RDBAPI_OPEN_SQLITE_FILES_H
#define RDBAPI_OPEN_SQLITE_FILES_H

#include "engine/status.h"
#include "sqlite/database.h"

#include <sys/stat.h>

namespace rdbopen {

class SqliteFiles {
public:
    //  Records the state of the files after a request. Fails if a file is missing, the open database no longer has the
    //  name `path`, or the database cannot be read.
    //  Requires: database is open at path, with write-ahead logging, and has been written.
    Status record(const std::string& path, SqliteDatabase& database);

    //  Returns whether the names still refer to the recorded files.
    bool areNamed() const;

    //  Returns ok if the files are as recorded, or if only SQLite seems to have changed them since. Otherwise the
    //  reason describes the change, or why the database cannot be read.
    Status verify(SqliteDatabase& database);

    //  Removes recorded files that do not belong to the current database, so that no connection applies them. Removes
    //  the index if one of the files was removed or replaced, or the database was overwritten. Removes the log if the
    //  database was removed, replaced or overwritten, but keeps a log that changed after it was recorded. Requires:
    //  verify has failed, and the connection was closed without a checkpoint.
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
