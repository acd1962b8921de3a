//  An exclusive lock between processes (and between workers of one process) by flock(2) on a separate file, which is
//  created if it does not exist and is not removed.
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

    //  Takes the lock on path; waits at most limit. Fails with the text of EWOULDBLOCK when the time expires.
    Status acquire(const std::string& path, std::chrono::milliseconds limit);

private:
    int fd_ = -1;
};

}  // namespace rdbopen

#endif
