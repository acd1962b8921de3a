//  Creates the file of a new database: writes the complete database to a temporary file, flushes it and renames it. So
//  after a power failure, the path has the complete database, or what it had before: no file or an empty one. SQLite
//  itself would write the file in place, with a journal.
#ifndef RDBAPI_OPEN_SQLITE_CREATION_H
#define RDBAPI_OPEN_SQLITE_CREATION_H

#include "files/path.h"

#include <chrono>

namespace rdbopen {

//  Maximum wait for the lock on the lock file of a database.
inline constexpr std::chrono::milliseconds sqliteLockLimit{2000};

//  Creates the file at place if it is missing or empty, and flushes its folder. A new file has mode 0644, independent
//  of the umask; an empty file keeps its mode and owner. If two services start at the same time, only one of them
//  creates the file. Also succeeds if an empty file cannot be replaced; SQLite then fills this file in place. Requires:
//  the caller has no connection to the file.
Status makeSqliteFile(const FilePlace& place);

}  // namespace rdbopen

#endif
