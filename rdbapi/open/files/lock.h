//  An exclusive lock between processes (and between workers of one process) by flock(2) on a file of its own, which is
//  made when it is missing and stays.
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

    //  Takes the lock on path, waiting at most limit. Fails with the text of EWOULDBLOCK when
    //  the time ran out.
    Status acquire(const std::string& path, std::chrono::milliseconds limit);

private:
    int fd_ = -1;
};

}  // namespace rdbopen

#endif
