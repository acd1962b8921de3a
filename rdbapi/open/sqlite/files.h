//  The files of an open database: whether they are still the ones that are open, and changed by SQLite only.
//
//      DIR/NAME        the database
//      DIR/NAME-wal    the log: what was committed and is not in the database yet; empty after most requests
//      DIR/NAME-shm    the index of the log, shared by all processes that have the database open
//
//  While a connection is open, none of them is replaced by SQLite. An empty log has nothing left for the database: when
//  the database changes after that although nobody has committed (PRAGMA data_version), another program wrote into it,
//  such as cp(1) or truncate(1). Of a log that could not be emptied, because a reader still needs it, this cannot be
//  said, nor when another process has just committed; then only the database's header is looked at, and that a value is lost
//  is found by a check of the value.
#ifndef RDBAPI_OPEN_SQLITE_FILES_H
#define RDBAPI_OPEN_SQLITE_FILES_H

#include "engine/status.h"
#include "sqlite/database.h"

#include <sys/stat.h>

namespace rdbopen {

class SqliteFiles {
public:
    //  Records the files as a request has left them. Returns false when one is missing, or
    //  when the database has another name now.
    //  Requires: database is open at path, with write-ahead logging, and has been written.
    bool record(const std::string& path, SqliteDatabase& database);

    //  True when the names still are those of the recorded files.
    bool areNamed() const;

    //  Ok when the files are as they were recorded or as SQLite has left them since; otherwise the reason says what
    //  happened.
    Status verify(SqliteDatabase& database);

    //  Removes what no longer fits, so that the next connection, or another process's, does not apply it: the index, and
    //  the log of a database that was replaced or overwritten. A file that changed after it was recorded stays.
    //  Requires: verify has failed, and database was closed without a checkpoint.
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
