//  Moves a damaged database of this library aside, so that a new one can take its name. A file without this library's
//  marks in its header is never moved, whatever is in it.
//
//      DIR/NAME.damaged                         the first one
//      DIR/NAME.damaged.1 ... NAME.damaged.9    the next ones
#ifndef RDBAPI_OPEN_SQLITE_DAMAGE_H
#define RDBAPI_OPEN_SQLITE_DAMAGE_H

#include "files/path.h"
#include "sqlite/database.h"

namespace rdbopen {

//  True when the file has fewer bytes than the pages that its header counts. SQLite itself takes a last page that is cut
//  for a whole one that ends with zeros. False while the log has content, because the log may have the missing pages.
//  The answer may be wrong while another connection writes, unless database is inside BEGIN IMMEDIATE.
//  Requires: database is open at path, and verifySqliteFile has accepted it.
bool isSqliteFileCutShort(SqliteDatabase& database, const std::string& path);

//  Checks the whole file at place, and renames it when it is damaged, together with a log or journal that has content.
//  Of several services that share the file one renames it. Ok when the file is missing, sound, busy or not
//  one of this library's; otherwise it cannot be used, and the reason is its new name or what keeps it from being
//  renamed. Requires: the caller has closed its connection to the file.
Status moveDamagedSqliteFile(const FilePlace& place);

}  // namespace rdbopen

#endif
