//  The tables of the back end sqlite, and the marks in the file's header that identify its own files.
//
//  application_id and user_version are at fixed offsets of the first page (https://www.sqlite.org/fileformat.html,
//  section 1.3). A new file has the whole schema before anything is logged, so both are in the file and not in its log,
//  and a foreign file is recognised without opening it as a database.
#ifndef RDBAPI_OPEN_SQLITE_SCHEMA_H
#define RDBAPI_OPEN_SQLITE_SCHEMA_H

#include "engine/status.h"
#include "sqlite/database.h"

namespace rdbopen {

inline constexpr std::int64_t sqliteApplicationId = 0x41445044;  // "ADPD"
inline constexpr std::int64_t sqliteSchemaVersion = 1;

//  Maximum number of history rows per tag; a further put removes the oldest.
inline constexpr std::int64_t sqliteHistoryLimit = 10000;

//  Checks the file's header before SQLite does, so that a foreign file stays unchanged: no recovery, no checkpoint, no
//  lock. Ok for a database of this schema, for an empty file, and for a file whose creation was interrupted, which
//  SQLite empties with its journal. Requires: database is open at path.
Status verifySqliteFile(SqliteDatabase& database, const std::string& path);

//  Returns true if the file is shorter than the pages counted in its header. Ignores a count that SQLite itself does
//  not use, because an old version of SQLite has written the file since. Requires: database is open, and
//  verifySqliteFile has accepted its file.
bool sqliteBytesMissing(SqliteDatabase& database);

//  Returns the bytes of a database with the tables and without rows, for write-ahead logging. Fails when memory is
//  exhausted.
Result<std::string> newSqliteDatabase();

//  Creates the tables in an empty database, and leaves a database of another program unchanged. A failed transaction
//  ends when the connection is closed.
Status makeSqliteSchema(SqliteDatabase& database);

}  // namespace rdbopen

#endif
