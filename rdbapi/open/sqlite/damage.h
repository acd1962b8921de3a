//  Renames a damaged database of this library, so that a new one can have its name. A file whose header does not
//  identify it as a database of this library (schema.h) is never renamed.
//
//      DIR/NAME.damaged                         first damaged file
//      DIR/NAME.damaged.1 ... NAME.damaged.9    further damaged files
#ifndef RDBAPI_OPEN_SQLITE_DAMAGE_H
#define RDBAPI_OPEN_SQLITE_DAMAGE_H

#include "files/path.h"
#include "sqlite/database.h"

namespace rdbopen {

//  Returns whether the file has fewer complete pages than its header says. SQLite itself treats an incomplete last page
//  as if zeros followed the page. Returns false while the log has contents, because the log may have the missing pages.
//  The result may be wrong while another connection writes; to prevent this, call the function inside BEGIN IMMEDIATE.
//  Requires: database is open at path, and verifySqliteFile has accepted its file.
bool isSqliteFileCutShort(SqliteDatabase& database, const std::string& path);

//  Checks the whole file at place and renames it if it is damaged, together with a log or journal that has contents. If
//  several services share the file, only one of them renames it. Succeeds if the file is missing, undamaged, not a
//  database of this library, or removed or replaced during the check. Also succeeds if SQLite cannot check the file,
//  for example because another connection has locked it. Fails if the file was renamed (the reason has the new name),
//  if it is damaged but cannot be renamed, and if the lock file (files/lock.h) cannot be locked. Requires: the caller
//  has closed its connection to the file.
Status moveDamagedSqliteFile(const FilePlace& place);

}  // namespace rdbopen

#endif
