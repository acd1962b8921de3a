#include "sqlite/creation.h"

#include "files/lock.h"
#include "files/replace.h"
#include "sqlite/schema.h"

#include <cerrno>
#include <system_error>
#include <unistd.h>

namespace rdbopen {

namespace {

constexpr std::chrono::milliseconds lockLimit{2000};

std::string failedTo(const char* what, int error) {
    return error == 0 ? std::string() : what + (": " + std::generic_category().message(error));
}

//  Only asks for the status: closing a descriptor of the file would drop SQLite's locks on it (fcntl(2)).
int readStatus(const FilePlace& place, FileText& text) {
    text.exists = lstat(place.path().c_str(), &text.status) == 0;
    return text.exists || errno == ENOENT ? 0 : errno;
}

//  A file with content is left alone: SQLite and the check of its header come later.
bool isToBeMade(const FileText& found) {
    return !found.exists || (S_ISREG(found.status.st_mode) && found.status.st_size == 0);
}

//  SQLite would apply a journal or log of a file that was removed to the new one. It removes them itself beside an empty
//  file. Their end is on the disk before the new file is.
int removeRemains(const FilePlace& place) {
    bool any = false;
    for (const char* suffix : {"-journal", "-wal", "-shm"}) {
        if (unlink((place.path() + suffix).c_str()) == 0)
            any = true;
        else if (errno != ENOENT)
            return errno;
    }
    return any ? flushDirectory(place) : 0;
}

//  Requires: the lock is held.
std::string fill(const FilePlace& place) {
    FileText before;
    if (const int error = readStatus(place, before); error != 0)
        return failedTo("cannot be reached", error);
    if (!isToBeMade(before))
        return {};
    const std::string database = newSqliteDatabase();
    if (database.empty())
        return "its tables cannot be made";
    int error = removeRemains(place);
    if (error == 0)
        error = replaceFile(place, before, database);
    //  EAGAIN: another program has made the file meanwhile.
    return error == EAGAIN || before.exists ? std::string() : failedTo("cannot be made", error);
}

}  // namespace

std::string makeSqliteFile(const FilePlace& place) {
    FileText found;
    if (const int error = readStatus(place, found); error != 0)
        return failedTo("cannot be reached", error);
    if (isToBeMade(found)) {
        FileLock lock;
        if (const int error = lock.acquire(place.lock(), lockLimit); error != 0)
            return failedTo("cannot be made: its lock file", error);
        std::string reason = fill(place);
        unlink(place.lock().c_str());  // whoever waits for the lock sees that its file has gone
        if (!reason.empty())
            return reason;
    }
    //  Also for a file that was there: it may have been renamed just before a process was killed.
    return failedTo("the folder cannot be flushed", flushDirectory(place));
}

}  // namespace rdbopen
