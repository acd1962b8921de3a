//  Reads what a database has of one name. Unlike the back end itself, this code does not create, change or repair the
//  database.
//
//      DIR/NAME-wal exists     the database is or was in use: reads with SQLite's locks, for which SQLite uses
//                              NAME-shm; SQLite creates or updates NAME-shm if needed
//      DIR/NAME-wal missing    nobody has the database open: reads the file as one that nobody changes, because SQLite
//                              would otherwise create NAME-wal and NAME-shm
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_SQLITE_READER_H
#define RDBAPI_OPEN_SQLITE_READER_H

#include "files/path.h"
#include "sqlite/database.h"

#include <optional>

namespace rdbopen {

struct SqliteValue {
    std::int64_t type = 0;
    std::string value;

    bool operator==(const SqliteValue&) const = default;
};

struct SqliteName {
    bool hasTag = false;
    std::optional<SqliteValue> value;
    std::int64_t changes = 0;  // number of entries in the history of the name
};

//  Returns what the database at place has of name. If the file is missing or empty, returns a SqliteName without tag,
//  value and history. Fails with errorBackendFailed, also for a database of another program.
Result<SqliteName> readSqliteName(const FilePlace& place, const std::string& name);

}  // namespace rdbopen

#endif
