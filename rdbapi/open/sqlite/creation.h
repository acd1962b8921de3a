//  Creates the file of a new database: writes the complete database to a temporary file, flushes it and renames it. So
//  a power failure leaves no file, an empty file, or the complete database. SQLite itself would write the file in
//  place, with a journal.
#ifndef RDBAPI_OPEN_SQLITE_CREATION_H
#define RDBAPI_OPEN_SQLITE_CREATION_H

#include "files/path.h"

#include <chrono>

namespace rdbopen {

//  Maximum wait for the lock on the lock file of a database.
inline constexpr std::chrono::milliseconds sqliteLockLimit{2000};

//  Creates the file at place if it is missing or empty, and flushes its folder. A new file has mode 0644, independent
//  of the umask; an empty file keeps its mode and owner. If two services start at the same time, only one of them
//  creates the file. If an empty file cannot be replaced, also succeeds; SQLite then fills the file. Requires: the
//  caller has no connection to the file.
Status makeSqliteFile(const FilePlace& place);

}  // namespace rdbopen

#endif
