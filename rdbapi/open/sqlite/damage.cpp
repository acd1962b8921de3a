#include "sqlite/damage.h"

#include "files/lock.h"
#include "files/replace.h"
#include "sqlite/creation.h"
#include "sqlite/schema.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace rdbopen {

namespace {

constexpr int lastName = 9;

//  Reads the status of the file without opening it: closing a descriptor of the file would release SQLite's locks on
//  the file (fcntl(2)). On failure, returns nothing and sets errno.
std::optional<struct stat> inodeOf(const std::string& path) {
    struct stat inode {};
    return lstat(path.c_str(), &inode) == 0 ? std::optional(inode) : std::nullopt;
}

bool hasContent(const std::string& path) {
    const auto inode = inodeOf(path);
    return inode && inode->st_size > 0;
}

//  Takes the write lock first, so that no other connection changes the log or the file during the comparison.
bool isCutShortForCertain(SqliteDatabase& database, const std::string& path) {
    if (!database.run("BEGIN IMMEDIATE").ok())
        return database.lastResultIsDamage();
    const bool cut = isSqliteFileCutShort(database, path);
    database.rollBack();
    return cut;
}

//  Returns whether SQLite finds faults. Returns false if the check fails for another reason, such as exhausted memory.
bool hasFaults(SqliteDatabase& database) {
    const Result<std::string> found = database.text("PRAGMA integrity_check(1)");
    return !found.ok() || found->empty() ? database.lastResultIsDamage() : *found != "ok";
}

//  Requires: the lock is held.
bool isDamaged(const std::string& path) {
    SqliteDatabase database;
    if (!database.open(path).ok() || !verifySqliteFile(database, path).ok())
        return false;
    const bool damaged = isCutShortForCertain(database, path) || hasFaults(database);
    database.abandon();
    return damaged;
}

//  Returns whether no file exists at path, and no journal, log or index next to it: SQLite would use such files for the
//  renamed database.
bool isFree(const std::string& path) {
    for (const char* suffix : {"", "-journal", "-wal", "-shm"})
        if (inodeOf(path + suffix) || errno != ENOENT)
            return false;
    return true;
}

Result<std::string> freeName(const FilePlace& place) {
    for (int number = 0; number <= lastName; ++number) {
        std::string name = place.path() + ".damaged" + (number == 0 ? "" : "." + std::to_string(number));
        if (isFree(name))
            return name;
    }
    return backendFailed("the file is damaged and stays as it is, because all names from " + place.name +
                         ".damaged to " + place.name + ".damaged." + std::to_string(lastName) + " are in use");
}

//  Renames the database before its log. In the other order, a crash between the renames would leave a database without
//  its log under the old name. The next check might then find no damage, and the data of the log would be missing. A
//  log without a database is removed when a new database is created. Returns a failure even after the renames, because
//  the file is not available.
Status moveTo(const std::string& name, const std::string& path) {
    if (std::rename(path.c_str(), name.c_str()) != 0)
        return failedTo("the file is damaged and cannot be renamed", systemFailure(errno));
    for (const char* suffix : {"-journal", "-wal"})
        if (hasContent(path + suffix))
            std::rename((path + suffix).c_str(), (name + suffix).c_str());
    for (const char* suffix : {"-journal", "-wal", "-shm"})
        unlink((path + suffix).c_str());
    return backendFailed("the file was damaged and is now " + name + "; a new one takes its place");
}

//  Requires: the lock is held.
Status moveIfDamaged(const FilePlace& place) {
    const auto before = inodeOf(place.path());
    if (!before || !isDamaged(place.path()))
        return {};
    const auto after = inodeOf(place.path());
    if (!after || after->st_dev != before->st_dev || after->st_ino != before->st_ino)
        return {};
    const Result<std::string> name = freeName(place);
    if (!name.ok())
        return name.status();
    Status moved = moveTo(*name, place.path());
    //  The folder is flushed before a new file gets the name: otherwise a power failure could lose the damaged file and
    //  keep the new file. A failure is ignored: makeSqliteFile flushes the folder again and reports a failure.
    static_cast<void>(flushDirectory(place));
    return moved;
}

}  // namespace

bool isSqliteFileCutShort(SqliteDatabase& database, const std::string& path) {
    return !hasContent(path + "-wal") && sqliteBytesMissing(database);
}

Status moveDamagedSqliteFile(const FilePlace& place) {
    FileLock lock;
    if (Status failed = lock.acquire(place.lock(), sqliteLockLimit); !failed.ok())
        return failedTo("the file may be damaged, and cannot be checked: the lock file cannot be locked",
                        std::move(failed));
    Status moved = moveIfDamaged(place);
    unlink(place.lock().c_str());  // a process that waits for the lock detects the removal
    return moved;
}

}  // namespace rdbopen
