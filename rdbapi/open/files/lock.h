//  An exclusive lock between processes, and between workers of one process: flock(2) on a separate lock file. The lock
//  creates this file if it does not exist, and does not remove it.
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

    //  Locks the file at path; waits at most about limit. Fails with the text of EWOULDBLOCK after a time-out.
    Status acquire(const std::string& path, std::chrono::milliseconds limit);

private:
    int fd_ = -1;
};

}  // namespace rdbopen

#endif
