//  The tables of the back end sqlite, and the marks in the file's header that tell its own files from others.
//
//  application_id and user_version stand at fixed places of the first page (https://www.sqlite.org/fileformat.html,
//  section 1.3). A new file has the whole schema before anything is logged, so both are in the file itself and not in its
//  log, and a foreign file is recognised without opening it as a database at all.
#ifndef RDBAPI_OPEN_SQLITE_SCHEMA_H
#define RDBAPI_OPEN_SQLITE_SCHEMA_H

#include "engine/status.h"
#include "sqlite/database.h"

namespace rdbopen {

inline constexpr std::int64_t sqliteApplicationId = 0x41445044;  // "ADPD"
inline constexpr std::int64_t sqliteSchemaVersion = 1;

//  History rows kept for each tag; a put beyond them removes the oldest.
inline constexpr std::int64_t sqliteHistoryLimit = 10000;

//  Looks at the file's header before SQLite does, so that a foreign file stays as it is: no recovery, no checkpoint, no
//  lock. Ok for a database of this schema, for an empty file, and for one whose making was cut off and which SQLite
//  makes empty again with the journal beside it. Requires: database is open at path.
Status verifySqliteFile(SqliteDatabase& database, const std::string& path);

//  True when the file has fewer bytes than the pages that its header counts. A count that SQLite itself would not
//  trust, because an old version has written the file since, is ignored.
//  Requires: database is open, and verifySqliteFile has accepted its file.
bool sqliteBytesMissing(SqliteDatabase& database);

//  Returns the bytes of a database with the tables and without rows, for write-ahead logging; empty when there is no
//  memory.
std::string newSqliteDatabase();

//  Makes the tables in an empty database, and sees to it that another's stays as it is. A transaction that has failed
//  ends when the connection is closed.
Status makeSqliteSchema(SqliteDatabase& database);

}  // namespace rdbopen

#endif
