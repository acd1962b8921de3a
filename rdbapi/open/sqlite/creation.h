//  Makes the file of a database that does not exist yet: the finished database is written under another name, flushed and
//  renamed, so that a power cut leaves no file, an empty one, or the whole database. SQLite would fill the file in place,
//  with a journal beside it.
#ifndef RDBAPI_OPEN_SQLITE_CREATION_H
#define RDBAPI_OPEN_SQLITE_CREATION_H

#include "files/path.h"

namespace rdbopen {

//  Makes the file at place when it is missing or empty, and flushes its folder. A new file has mode 0644 whatever the
//  umask; an empty one keeps its mode and owner. Of two services that start together one makes it. Ok also
//  when an empty file cannot be renamed over and is left to SQLite.
//  Requires: no connection of this process to the file is open.
Status makeSqliteFile(const FilePlace& place);

}  // namespace rdbopen

#endif
