#include "sqlite/files.h"

#include "sqlite/schema.h"

#include <unistd.h>

namespace rdbopen {

SqliteFiles::File SqliteFiles::inspect(const std::string& path) {
    File file;
    file.path = path;
    file.exists = lstat(path.c_str(), &file.inode) == 0;
    return file;
}

bool SqliteFiles::sameFile(const File& left, const File& right) {
    return left.exists && right.exists && left.inode.st_dev == right.inode.st_dev &&
           left.inode.st_ino == right.inode.st_ino;
}

//  Compares the modification time, not the time of the last status change: a change of mode or owner does not matter.
bool SqliteFiles::sameBytes(const File& left, const File& right) {
    return sameFile(left, right) && left.inode.st_size == right.inode.st_size &&
           left.inode.st_mtim.tv_sec == right.inode.st_mtim.tv_sec &&
           left.inode.st_mtim.tv_nsec == right.inode.st_mtim.tv_nsec;
}

//  The order matters: version, log, database. If the log is empty after the version was read, all commits up to that
//  version are in the database file. So the database file is examined after the log.
Status SqliteFiles::record(const std::string& path, SqliteDatabase& database) {
    indexLost_ = false;
    databaseLost_ = false;
    const Result<std::int64_t> version = database.dataVersion();
    log_ = inspect(path + "-wal");
    index_ = inspect(path + "-shm");
    database_ = inspect(path);
    //  hasMoved is called last, because another file may have got the name before inspect was called.
    if (!version.ok() || !log_.exists || !index_.exists || !database_.exists || database.hasMoved())
        return backendFailed("the file was removed or replaced");
    version_ = *version;
    return {};
}

bool SqliteFiles::areNamed() const {
    return sameFile(database_, inspect(database_.path)) && sameFile(log_, inspect(log_.path)) &&
           sameFile(index_, inspect(index_.path));
}

//  Examines the database file before the version is read. So, if a commit has changed the file, the version includes
//  this commit.
Status SqliteFiles::verify(SqliteDatabase& database) {
    const File now = inspect(database_.path);
    databaseLost_ = !sameFile(database_, now);
    indexLost_ = databaseLost_ || !areNamed();
    if (databaseLost_)
        return backendFailed("the file was removed or replaced");
    if (indexLost_)
        return backendFailed("the file's -wal or -shm was removed or replaced");
    if (sameBytes(database_, now))
        return {};
    databaseLost_ = now.inode.st_size == 0 || !verifySqliteFile(database, database_.path).ok();
    if (!databaseLost_) {
        const Result<std::int64_t> version = database.dataVersion();
        if (!version.ok())
            return failedTo("cannot be read", version.status());
        databaseLost_ = log_.inode.st_size == 0 && *version == version_;
    }
    indexLost_ = databaseLost_;
    if (databaseLost_)
        return backendFailed("the file was overwritten by another program");
    //  An overwritten file may remain undetected. The page cache is dropped, so that later reads at least do not mix
    //  pages of two files.
    database.dropPageCache();
    return record(database_.path, database);
}

void SqliteFiles::removeRemains() const {
    if (indexLost_ && sameFile(index_, inspect(index_.path)))
        unlink(index_.path.c_str());
    if (databaseLost_ && sameBytes(log_, inspect(log_.path)))
        unlink(log_.path.c_str());
}

}  // namespace rdbopen
