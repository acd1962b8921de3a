#include "sqlite/creation.h"

#include "files/lock.h"
#include "files/replace.h"
#include "sqlite/schema.h"

#include <cerrno>
#include <unistd.h>

namespace rdbopen {

namespace {

//  Reads the status of the file without opening it: closing a descriptor of the file would release SQLite's locks on
//  the file (fcntl(2)).
Status readInode(const FilePlace& place, FileText& text) {
    text.exists = lstat(place.path().c_str(), &text.inode) == 0;
    return text.exists || errno == ENOENT ? Status{} : failedTo("cannot be reached", systemFailure(errno));
}

//  Returns whether the file is missing or empty. A file with contents is not changed here; verifySqliteFile checks it.
bool isToBeMade(const FileText& found) {
    return !found.exists || (S_ISREG(found.inode.st_mode) && found.inode.st_size == 0);
}

//  Removes the journal, the log and its index of a removed database, because SQLite would apply them to the new file.
//  (Next to an empty file, SQLite would remove them itself.) Flushes the removal to the disk before the new file is
//  created.
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
    //  A failure is ignored in two cases: the file existed and was empty, so SQLite can fill it, or another process has
    //  created the file meanwhile.
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
        if (Status failed = lock.acquire(place.lock(), sqliteLockLimit); !failed.ok())
            return failedTo("cannot be made: the lock file cannot be locked", std::move(failed));
        Status status = fill(place);
        unlink(place.lock().c_str());  // a process that waits for the lock detects the removal
        if (!status.ok())
            return status;
    }
    //  The folder is flushed for an existing file, too: a process may have renamed the file and been killed before the
    //  flush.
    Status flushed = flushDirectory(place);
    return flushed.ok() ? flushed : failedTo("the folder cannot be flushed", std::move(flushed));
}

}  // namespace rdbopen
