#include "files/replace.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace rdbopen {

namespace {

constexpr mode_t newFileMode = 0644;  // a name server runs as another user
constexpr mode_t modeBits = 07777;

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd_ >= 0)
            close(fd_);
    }
    int get() const { return fd_; }

private:
    int fd_;
};

//  0 for a call that did not fail, otherwise its errno.
int errorOf(int result) {
    return result < 0 ? errno : 0;
}

int writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR)
            return errno;
        if (written > 0)
            bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

//  The owner comes first: a change of owner clears mode bits.
int copyOwnerAndMode(int fd, const FileText& before) {
    if (!before.exists)
        return errorOf(fchmod(fd, newFileMode));
    struct stat fresh {};
    int error = errorOf(fstat(fd, &fresh));
    if (error == 0 && (fresh.st_uid != before.status.st_uid || fresh.st_gid != before.status.st_gid))
        error = errorOf(fchown(fd, before.status.st_uid, before.status.st_gid));
    return error != 0 ? error : errorOf(fchmod(fd, before.status.st_mode & modeBits));
}

//  What a crash left behind is removed first; O_EXCL then makes sure that nobody else's file is written.
int openTemporary(const FilePlace& place) {
    unlink(place.temporary().c_str());
    return open(place.temporary().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
}

int writeTemporary(const FilePlace& place, const FileText& before, std::string_view bytes) {
    const Descriptor file(openTemporary(place));
    if (file.get() < 0)
        return errno;
    if (const int error = copyOwnerAndMode(file.get(), before); error != 0)
        return error;
    if (const int error = writeAll(file.get(), bytes); error != 0)
        return error;
    return errorOf(fsync(file.get()));
}

bool sameTime(const timespec& left, const timespec& right) {
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

bool unchangedSince(const FilePlace& place, const FileText& before) {
    struct stat now {};
    if (lstat(place.path().c_str(), &now) != 0)
        return !before.exists && errno == ENOENT;
    return before.exists && now.st_dev == before.status.st_dev && now.st_ino == before.status.st_ino &&
           now.st_size == before.status.st_size && sameTime(now.st_mtim, before.status.st_mtim) &&
           sameTime(now.st_ctim, before.status.st_ctim);
}

}  // namespace

int readFile(const FilePlace& place, FileText& text) {
    text = FileText();
    const Descriptor file(open(place.path().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file.get() < 0)
        return errno == ENOENT ? 0 : errno;
    if (fstat(file.get(), &text.status) != 0)
        return errno;
    if (!S_ISREG(text.status.st_mode))
        return EINVAL;
    text.exists = true;
    char block[16384];
    for (;;) {
        const ssize_t size = read(file.get(), block, sizeof block);
        if (size == 0)
            return 0;
        if (size < 0 && errno != EINTR)
            return errno;
        if (size > 0)
            text.bytes.append(block, static_cast<std::size_t>(size));
        if (text.bytes.size() > maxFileSize)
            return EFBIG;
    }
}

int checkWritable(const FilePlace& place) {
    const Descriptor file(openTemporary(place));
    if (file.get() < 0)
        return errno;
    return errorOf(unlink(place.temporary().c_str()));
}

int replaceFile(const FilePlace& place, const FileText& before, std::string_view bytes) {
    if (bytes.size() > maxFileSize)
        return EFBIG;
    int error = writeTemporary(place, before, bytes);
    if (error == 0 && !unchangedSince(place, before))
        error = EAGAIN;
    if (error == 0)
        error = errorOf(rename(place.temporary().c_str(), place.path().c_str()));
    if (error != 0)
        unlink(place.temporary().c_str());
    return error;
}

int flushDirectory(const FilePlace& place) {
    const Descriptor directory(open(place.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory.get() < 0 ? errno : errorOf(fsync(directory.get()));
}

}  // namespace rdbopen
