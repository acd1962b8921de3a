//  Moves a damaged database of this library aside, so that a new one can use its name. A file without this library's
//  marks in its header is never moved.
//
//      DIR/NAME.damaged                         the first one
//      DIR/NAME.damaged.1 ... NAME.damaged.9    the next ones
#ifndef RDBAPI_OPEN_SQLITE_DAMAGE_H
#define RDBAPI_OPEN_SQLITE_DAMAGE_H

#include "files/path.h"
#include "sqlite/database.h"

namespace rdbopen {

//  Returns true if the file is shorter than the pages counted in its header. SQLite itself treats an incomplete last
//  page as complete, ending with zeros. Returns false while the log has contents, because the log may have the missing
//  pages. The result may be wrong while another connection writes, unless database is inside BEGIN IMMEDIATE. Requires:
//  database is open at path, and verifySqliteFile has accepted it.
bool isSqliteFileCutShort(SqliteDatabase& database, const std::string& path);

//  Checks the whole file at place and renames it if it is damaged, together with a log or journal that has contents. Of
//  several services that share the file, one renames it. Ok if the file is missing, undamaged, busy or not one of this
//  library's; otherwise it cannot be used, and the reason is its new name or why it was not renamed. Requires: the
//  caller has closed its connection to the file.
Status moveDamagedSqliteFile(const FilePlace& place);

}  // namespace rdbopen

#endif
