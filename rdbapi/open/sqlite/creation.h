//  Creates the file of a new database: writes the complete database under another name, flushes and renames it. So a
//  power failure leaves no file, an empty file, or the whole database. SQLite itself would fill the file in place, with
//  a journal.
#ifndef RDBAPI_OPEN_SQLITE_CREATION_H
#define RDBAPI_OPEN_SQLITE_CREATION_H

#include "files/path.h"

namespace rdbopen {

//  Creates the file at place if it is missing or empty, and flushes its folder. A new file has mode 0644 with any
//  umask; an empty one keeps its mode and owner. Of two services that start together, one creates it. Also ok if an
//  empty file cannot be replaced by renaming and is left to SQLite. Requires: no connection of this process to the file
//  is open.
Status makeSqliteFile(const FilePlace& place);

}  // namespace rdbopen

#endif
