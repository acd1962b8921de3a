//  An exclusive lock between processes, and between workers of one process: flock(2) on a separate lock file. If this
//  file does not exist, the lock creates it. The lock does not remove the file.
#ifndef RDBAPI_OPEN_FILES_LOCK_H
#define RDBAPI_OPEN_FILES_LOCK_H

#include "engine/status.h"

#include <chrono>

namespace rdbopen {

class FileLock {
public:
    FileLock() = default;
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    ~FileLock();

    //  Locks the lock file at path. Waits for at most about limit; after a time-out, fails with the text of
    //  EWOULDBLOCK.
    Status acquire(const std::string& path, std::chrono::milliseconds limit);

private:
    int fd_ = -1;
};

}  // namespace rdbopen

#endif
