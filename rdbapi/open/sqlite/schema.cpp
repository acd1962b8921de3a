#include "sqlite/schema.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace rdbopen {

namespace {

//  The header of a database. Names that end with "At" are offsets in bytes.
constexpr int headerSize = 100;
constexpr std::size_t writeFormatAt = 18;
constexpr std::size_t readFormatAt = 19;
constexpr char formatWithLog = 2;
constexpr std::size_t pageSizeAt = 16;
constexpr std::int64_t pageSizeCode = 1;  // means maxPageSize, which does not fit into two bytes
constexpr std::int64_t maxPageSize = 65536;
constexpr std::size_t changesAt = 24;
constexpr std::size_t pageCountAt = 28;
constexpr std::size_t changesAtCountAt = 92;
constexpr std::size_t userVersionAt = 60;
constexpr std::size_t applicationIdAt = 68;
constexpr std::int64_t marksEnd = 72;
constexpr char magic[16] = "SQLite format 3";

//  The header of a journal (section 3 of https://www.sqlite.org/fileformat.html) has magic bytes and the number of
//  pages that the database had before the transaction.
constexpr int journalHeaderSize = 28;
constexpr std::size_t pagesBeforeAt = 16;
constexpr unsigned char journalMagic[8] = {0xd9, 0xd5, 0x05, 0xf9, 0x20, 0xa1, 0x63, 0xd7};

//  Times are milliseconds since 1970-01-01 UTC; the views show them as ISO 8601 texts. time_ms of a value is the time
//  of its last change, confirmed_ms is the time of its last put. The history has one row for each of the newest
//  changes.
constexpr const char* schema = R"sql(
CREATE TABLE tag (
    id          INTEGER PRIMARY KEY,
    name        TEXT NOT NULL UNIQUE,
    class       INTEGER NOT NULL,
    type        INTEGER NOT NULL,
    importflag  INTEGER NOT NULL,
    imported_ms INTEGER NOT NULL
);
CREATE TABLE snapshot (
    tag          INTEGER PRIMARY KEY REFERENCES tag(id),
    time_ms      INTEGER NOT NULL,
    confirmed_ms INTEGER NOT NULL,
    type         INTEGER NOT NULL,
    value        TEXT NOT NULL
);
CREATE TABLE history (
    id      INTEGER PRIMARY KEY,
    tag     INTEGER NOT NULL REFERENCES tag(id),
    time_ms INTEGER NOT NULL,
    type    INTEGER NOT NULL,
    value   TEXT NOT NULL
);
CREATE INDEX history_of_tag ON history(tag, id);
CREATE TABLE service (
    one       INTEGER PRIMARY KEY CHECK (one = 1),
    opened_ms INTEGER NOT NULL
);
CREATE VIEW current_values AS
    SELECT name, strftime('%Y-%m-%dT%H:%M:%fZ', time_ms / 1000.0, 'unixepoch') AS time,
           strftime('%Y-%m-%dT%H:%M:%fZ', confirmed_ms / 1000.0, 'unixepoch') AS confirmed, value
    FROM snapshot JOIN tag ON tag.id = snapshot.tag;
CREATE VIEW past_values AS
    SELECT name, strftime('%Y-%m-%dT%H:%M:%fZ', time_ms / 1000.0, 'unixepoch') AS time, value
    FROM history JOIN tag ON tag.id = history.tag ORDER BY history.id;
)sql";

std::int64_t bigEndian32(const unsigned char* first) {
    return std::int64_t{first[0]} << 24 | first[1] << 16 | first[2] << 8 | first[3];
}

//  Returns whether SQLite will empty the file at path. SQLite does so if the first transaction of the file was
//  interrupted: the file's journal then contains 0 as the previous number of pages.
bool isRolledBackToNothing(const std::string& path) {
    unsigned char header[journalHeaderSize]{};
    const int journal = open((path + "-journal").c_str(), O_RDONLY | O_CLOEXEC);
    if (journal < 0)
        return false;
    const ssize_t taken = read(journal, header, sizeof header);
    close(journal);
    return taken == sizeof header && std::memcmp(header, journalMagic, sizeof journalMagic) == 0 &&
           bigEndian32(header + pagesBeforeAt) == 0;
}

constexpr char foreignFile[] = "the file is a database of another program";

bool isBlank(const unsigned char* first, std::size_t size) {
    return std::all_of(first, first + size, [](unsigned char byte) { return byte == 0; });
}

Status makeTables(SqliteDatabase& database) {
    const std::string marks = "PRAGMA application_id = " + std::to_string(sqliteApplicationId) +
                              "; PRAGMA user_version = " + std::to_string(sqliteSchemaVersion);
    if (Status failed = database.run(schema); !failed.ok())
        return failed;
    return database.run(marks.c_str());
}

}  // namespace

Status verifySqliteFile(SqliteDatabase& database, const std::string& path) {
    unsigned char header[headerSize]{};
    const Result<std::int64_t> size = database.readFirstBytes(header, headerSize);
    if (!size.ok())
        return size.status();
    //  SQLite reports size 0 for a file of one byte, too.
    if (*size == 0 && header[0] == 0)
        return {};
    //  After a crash during the first transaction, the first page may be missing on the disk.
    if (isBlank(header, headerSize) && isRolledBackToNothing(path))
        return {};
    if (*size < marksEnd || std::memcmp(header, magic, sizeof magic) != 0)
        return backendFailed("the file is not a database");
    if (bigEndian32(header + applicationIdAt) != sqliteApplicationId)
        return backendFailed(foreignFile);
    if (bigEndian32(header + userVersionAt) != sqliteSchemaVersion)
        return backendFailed("the file is a database of another version of this program");
    return {};
}

bool sqliteBytesMissing(SqliteDatabase& database) {
    unsigned char header[headerSize]{};
    const Result<std::int64_t> size = database.readFirstBytes(header, headerSize);
    if (!size.ok() || *size == 0)
        return false;
    if (*size < headerSize)
        return true;
    const std::int64_t code = header[pageSizeAt] << 8 | header[pageSizeAt + 1];
    const std::int64_t pageSize = code == pageSizeCode ? maxPageSize : code;
    const bool trusted = bigEndian32(header + changesAt) == bigEndian32(header + changesAtCountAt);
    return trusted && *size < pageSize * bigEndian32(header + pageCountAt);
}

Status makeSqliteSchema(SqliteDatabase& database) {
    //  The lock is taken before the check, so that only one of two services that start together creates the tables.
    if (Status failed = database.run("BEGIN IMMEDIATE"); !failed.ok())
        return failedTo("cannot be written", std::move(failed));
    const Result<std::int64_t> id = database.number("PRAGMA application_id");
    if (!id.ok())
        return failedTo("cannot be read", id.status());
    const Result<std::int64_t> objects = database.number("SELECT count(*) FROM sqlite_schema");
    if (!objects.ok())
        return failedTo("cannot be read", objects.status());
    Status status;
    if (*id == 0 && *objects == 0) {
        status = makeTables(database);
        if (status.ok())
            status = database.run("COMMIT");
        if (!status.ok())
            status = failedTo("its tables cannot be made", std::move(status));
    } else if (*id != sqliteApplicationId) {
        status = backendFailed(foreignFile);
    }
    if (database.inTransaction())
        database.rollBack();
    return status;
}

//  A database in memory does not use write-ahead logging. Setting the two format bytes of the header enables it for the
//  file.
Result<std::string> newSqliteDatabase() {
    const Status failed = backendFailed("its tables cannot be made");
    SqliteDatabase database;
    if (!database.open(":memory:").ok() || !makeTables(database).ok())
        return failed;
    Result<std::string> bytes = database.bytes();
    if (!bytes.ok() || bytes->size() < headerSize)
        return failed;
    (*bytes)[writeFormatAt] = (*bytes)[readFormatAt] = formatWithLog;
    return bytes;
}

}  // namespace rdbopen
