#include "sqlite/creation.h"

#include "files/lock.h"
#include "files/replace.h"
#include "sqlite/schema.h"

#include <cerrno>
#include <unistd.h>

namespace rdbopen {

namespace {

constexpr std::chrono::milliseconds lockLimit{2000};

//  Only reads the status: closing a descriptor of the file would release SQLite's locks on it (fcntl(2)).
Status readInode(const FilePlace& place, FileText& text) {
    text.exists = lstat(place.path().c_str(), &text.inode) == 0;
    return text.exists || errno == ENOENT ? Status{} : failedTo("cannot be reached", systemFailure(errno));
}

//  A file with contents is not changed: SQLite and the check of its header handle it.
bool isToBeMade(const FileText& found) {
    return !found.exists || (S_ISREG(found.inode.st_mode) && found.inode.st_size == 0);
}

//  SQLite would apply a journal or log of a removed file to the new one. It removes them itself next to an empty file.
//  Their removal is on the disk before the new file is.
Status removeRemains(const FilePlace& place) {
    bool any = false;
    for (const char* suffix : {"-journal", "-wal", "-shm"}) {
        if (unlink((place.path() + suffix).c_str()) == 0)
            any = true;
        else if (errno != ENOENT)
            return systemFailure(errno);
    }
    return any ? flushDirectory(place) : Status{};
}

//  Requires: the lock is held.
Status fill(const FilePlace& place) {
    FileText before;
    if (Status failed = readInode(place, before); !failed.ok())
        return failed;
    if (!isToBeMade(before))
        return {};
    const Result<std::string> database = newSqliteDatabase();
    if (!database.ok())
        return database.status();
    Status status = removeRemains(place);
    if (status.ok())
        status = replaceFile(place, before, *database);
    //  An existing file is left to SQLite; if it has changed, another program has created it meanwhile.
    const bool left = status.ok() || status.code == errorFileChanged || before.exists;
    return left ? Status{} : backendFailed("cannot be made: " + status.reason);
}

}  // namespace

Status makeSqliteFile(const FilePlace& place) {
    FileText found;
    if (Status failed = readInode(place, found); !failed.ok())
        return failed;
    if (isToBeMade(found)) {
        FileLock lock;
        if (Status failed = lock.acquire(place.lock(), lockLimit); !failed.ok())
            return failedTo("cannot be made: the lock file cannot be locked", std::move(failed));
        Status status = fill(place);
        unlink(place.lock().c_str());  // a process waiting for the lock sees that its file was removed
        if (!status.ok())
            return status;
    }
    //  Also for an existing file: it may have been renamed just before a process was killed.
    Status flushed = flushDirectory(place);
    return flushed.ok() ? flushed : failedTo("the folder cannot be flushed", std::move(flushed));
}

}  // namespace rdbopen
