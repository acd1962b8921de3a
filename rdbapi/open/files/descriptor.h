//  An object that owns a file descriptor and closes it in its destructor, and functions that read a whole file.
//
//  Threads: any thread may use an object, one thread at a time.
#ifndef RDBAPI_OPEN_FILES_DESCRIPTOR_H
#define RDBAPI_OPEN_FILES_DESCRIPTOR_H

#include "engine/status.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace rdbopen {

class Descriptor {
public:
    //  Takes ownership of fd; a negative fd means no descriptor.
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd_ >= 0)
            close(fd_);
    }
    int get() const noexcept { return fd_; }

private:
    int fd_;
};

//  Reads fd to its end. Fails with errorTooLarge if there are more than limit bytes, and with errorBackendFailed if it
//  cannot be read.
inline Result<std::string> readToEnd(int fd, std::size_t limit) {
    std::string bytes;
    char block[16384];
    for (;;) {
        const ssize_t size = read(fd, block, sizeof block);
        if (size == 0)
            return bytes;
        if (size < 0 && errno != EINTR)
            return systemFailure(errno);
        if (size > 0)
            bytes.append(block, static_cast<std::size_t>(size));
        if (bytes.size() > limit)
            return Status{errorTooLarge, systemText(EFBIG)};
    }
}

//  Opens the file at path and reads it with readToEnd. Fails if it is not a regular file: a pipe or a device could
//  block the reader.
inline Result<std::string> readRegularFile(const char* path, std::size_t limit) {
    const Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat inode {};
    if (file.get() < 0 || fstat(file.get(), &inode) != 0)
        return systemFailure(errno);
    return S_ISREG(inode.st_mode) ? readToEnd(file.get(), limit) : systemFailure(EINVAL);
}

}  // namespace rdbopen

#endif
