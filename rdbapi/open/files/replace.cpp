#include "files/replace.h"

#include "files/descriptor.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace rdbopen {

namespace {

constexpr mode_t newFileMode = 0644;  // a name server that runs as another user must be able to read the file
constexpr mode_t modeBits = 07777;

//  Returns the status for the return value of a system call.
Status statusOf(int result) {
    return result < 0 ? systemFailure(errno) : Status{};
}

Status writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR)
            return systemFailure(errno);
        if (written > 0)
            bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return {};
}

//  fchown comes before fchmod, because a change of owner may clear mode bits.
Status copyOwnerAndMode(int fd, const FileText& before) {
    if (!before.exists)
        return statusOf(fchmod(fd, newFileMode));
    struct stat fresh {};
    Status status = statusOf(fstat(fd, &fresh));
    if (status.ok() && (fresh.st_uid != before.inode.st_uid || fresh.st_gid != before.inode.st_gid))
        status = statusOf(fchown(fd, before.inode.st_uid, before.inode.st_gid));
    return status.ok() ? statusOf(fchmod(fd, before.inode.st_mode & modeBits)) : status;
}

//  Removes a temporary file that remains after a crash. O_EXCL then ensures that no other program has created the new
//  file.
int openTemporary(const FilePlace& place) {
    unlink(place.temporary().c_str());
    return open(place.temporary().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
}

Status writeTemporary(const FilePlace& place, const FileText& before, std::string_view bytes) {
    const Descriptor file(openTemporary(place));
    if (file.get() < 0)
        return systemFailure(errno);
    if (Status failed = copyOwnerAndMode(file.get(), before); !failed.ok())
        return failed;
    if (Status failed = writeAll(file.get(), bytes); !failed.ok())
        return failed;
    return statusOf(fsync(file.get()));
}

bool sameTime(const timespec& left, const timespec& right) {
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

bool unchangedSince(const FilePlace& place, const FileText& before) {
    struct stat now {};
    if (lstat(place.path().c_str(), &now) != 0)
        return !before.exists && errno == ENOENT;
    return before.exists && now.st_dev == before.inode.st_dev && now.st_ino == before.inode.st_ino &&
           now.st_size == before.inode.st_size && sameTime(now.st_mtim, before.inode.st_mtim) &&
           sameTime(now.st_ctim, before.inode.st_ctim);
}

}  // namespace

Result<FileText> readFile(const FilePlace& place) {
    FileText text;
    const Descriptor file(open(place.path().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file.get() < 0 && errno == ENOENT)
        return text;
    if (file.get() < 0 || fstat(file.get(), &text.inode) != 0)
        return systemFailure(errno);
    if (!S_ISREG(text.inode.st_mode))
        return systemFailure(EINVAL);
    Result<std::string> bytes = readToEnd(file.get(), maxFileSize);
    if (!bytes.ok())
        return bytes.status();
    text.exists = true;
    text.bytes = std::move(*bytes);
    return text;
}

Status testWritable(const FilePlace& place) {
    const Descriptor file(openTemporary(place));
    if (file.get() < 0)
        return systemFailure(errno);
    return statusOf(unlink(place.temporary().c_str()));
}

Status replaceFile(const FilePlace& place, const FileText& before, std::string_view bytes) {
    if (bytes.size() > maxFileSize)
        return {errorTooLarge, systemText(EFBIG)};
    Status status = writeTemporary(place, before, bytes);
    if (status.ok() && !unchangedSince(place, before))
        status = {errorFileChanged, systemText(EAGAIN)};
    if (status.ok())
        status = statusOf(rename(place.temporary().c_str(), place.path().c_str()));
    if (!status.ok())
        unlink(place.temporary().c_str());
    return status;
}

Status flushDirectory(const FilePlace& place) {
    const Descriptor directory(open(place.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory.get() < 0 ? systemFailure(errno) : statusOf(fsync(directory.get()));
}

}  // namespace rdbopen
