#include "sqlite/files.h"

#include "sqlite/schema.h"

#include <unistd.h>

namespace rdbopen {

SqliteFiles::File SqliteFiles::look(const std::string& path) {
    File file;
    file.path = path;
    file.exists = lstat(path.c_str(), &file.status) == 0;
    return file;
}

bool SqliteFiles::sameFile(const File& left, const File& right) {
    return left.exists && right.exists && left.status.st_dev == right.status.st_dev &&
           left.status.st_ino == right.status.st_ino;
}

//  A change of mode or owner is none, so that the time of the last status change is not looked at.
bool SqliteFiles::sameBytes(const File& left, const File& right) {
    return sameFile(left, right) && left.status.st_size == right.status.st_size &&
           left.status.st_mtim.tv_sec == right.status.st_mtim.tv_sec &&
           left.status.st_mtim.tv_nsec == right.status.st_mtim.tv_nsec;
}

//  In this order: a log that is empty after the version was read shows that all commits up to that version are in the
//  database, which is looked at last.
bool SqliteFiles::note(const std::string& path, SqliteDatabase& database) {
    indexLost_ = false;
    databaseLost_ = false;
    version_ = database.dataVersion();
    log_ = look(path + "-wal");
    index_ = look(path + "-shm");
    database_ = look(path);
    //  Afterwards: the name may have gone to another file before it was looked at.
    return version_ >= 0 && log_.exists && index_.exists && database_.exists && !database.hasMoved();
}

bool SqliteFiles::areNamed() const {
    return sameFile(database_, look(database_.path)) && sameFile(log_, look(log_.path)) &&
           sameFile(index_, look(index_.path));
}

//  The database is looked at before its version is asked for: the commit that explains a change comes before it.
std::string SqliteFiles::change(SqliteDatabase& database) {
    const File now = look(database_.path);
    databaseLost_ = !sameFile(database_, now);
    indexLost_ = databaseLost_ || !areNamed();
    if (databaseLost_)
        return "the file was removed or replaced";
    if (indexLost_)
        return "the file's -wal or -shm was removed or replaced";
    if (sameBytes(database_, now))
        return {};
    databaseLost_ = now.status.st_size == 0 || !sqliteFileRefusal(database, database_.path).empty();
    if (!databaseLost_) {
        const std::int64_t version = database.dataVersion();
        if (version < 0)
            return "cannot be read: " + database.lastError();
        databaseLost_ = log_.status.st_size == 0 && version == version_;
    }
    indexLost_ = databaseLost_;
    if (databaseLost_)
        return "the file was overwritten by another program";
    //  If it was overwritten all the same, what is read from now on at least comes from one file.
    database.forgetPages();
    return note(database_.path, database) ? std::string() : "the file was removed or replaced";
}

void SqliteFiles::removeRemains() const {
    if (indexLost_ && sameFile(index_, look(index_.path)))
        unlink(index_.path.c_str());
    if (databaseLost_ && sameBytes(log_, look(log_.path)))
        unlink(log_.path.c_str());
}

}  // namespace rdbopen
