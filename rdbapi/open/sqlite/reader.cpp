#include "sqlite/reader.h"

#include "sqlite/schema.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace rdbopen {

namespace {

Status unreadable(Status cause) {
    return failedTo("cannot be read", std::move(cause));
}

Result<SqliteName> query(SqliteDatabase& database, const std::string& name) {
    Result<SqliteStatement> find = database.prepare(
        "SELECT (SELECT count(*) FROM history WHERE history.tag = tag.id), snapshot.type, snapshot.value, "
        "snapshot.tag IS NOT NULL FROM tag LEFT JOIN snapshot ON snapshot.tag = tag.id WHERE name = ?1");
    if (!find.ok())
        return unreadable(find.status());
    const Result<bool> found = find->bind(1, std::string_view(name)).step();
    if (!found.ok())
        return unreadable(found.status());
    SqliteName result;
    result.hasTag = *found;
    if (!*found)
        return result;
    result.changes = find->column(0);
    if (find->column(3) != 0)
        result.value = SqliteValue{find->column(1), std::string(find->text(2))};
    return result;
}

}  // namespace

Result<SqliteName> readSqliteName(const FilePlace& place, const std::string& name) {
    const std::string path = place.path();
    struct stat file {};
    if (lstat(path.c_str(), &file) != 0 && errno == ENOENT)
        return SqliteName();
    if (S_ISREG(file.st_mode) && file.st_size == 0)
        return SqliteName();
    SqliteDatabase database;
    const bool inUse = access((path + "-wal").c_str(), F_OK) == 0;
    if (Status failed = database.openReadOnly(path, inUse); !failed.ok())
        return failedTo("cannot be opened", std::move(failed));
    if (Status refused = verifySqliteFile(database, path); !refused.ok())
        return refused;
    return query(database, name);
}

}  // namespace rdbopen
