//  The tables of the back end sqlite, and the two numbers in a file's header that identify databases of this library.
//
//  These numbers, application_id and user_version, have fixed offsets in the first page
//  (https://www.sqlite.org/fileformat.html, section 1.3). A new file is written completely before write-ahead logging
//  is used, so both numbers are always in the file itself, not only in the log. A file of another program is thus
//  recognised before SQLite reads it.
#ifndef RDBAPI_OPEN_SQLITE_SCHEMA_H
#define RDBAPI_OPEN_SQLITE_SCHEMA_H

#include "engine/status.h"
#include "sqlite/database.h"

namespace rdbopen {

inline constexpr std::int64_t sqliteApplicationId = 0x41445044;  // "ADPD"
inline constexpr std::int64_t sqliteSchemaVersion = 2;

//  Checks the file's header before SQLite reads the file, so that SQLite neither locks a file of another program nor
//  changes it by a recovery or a checkpoint. Succeeds for a database of this schema and for an empty file. Also
//  succeeds for a file whose creation was interrupted, if SQLite will empty the file by means of its journal. Requires:
//  database is open at path.
Status verifySqliteFile(SqliteDatabase& database, const std::string& path);

//  Returns whether the file has fewer complete pages than its header says. Like SQLite, ignores the number in the
//  header if an old version of SQLite wrote the file last and did not update the number. Requires: database is open,
//  and verifySqliteFile has accepted its file.
bool sqliteBytesMissing(SqliteDatabase& database);

//  Returns the bytes of a database file with empty tables and with write-ahead logging enabled. Fails when memory is
//  exhausted.
Result<std::string> newSqliteDatabase();

//  Creates the tables if the database is empty. Does not change any other database: succeeds if it is one of this
//  library, and fails if it belongs to another program.
Status makeSqliteSchema(SqliteDatabase& database);

}  // namespace rdbopen

#endif
