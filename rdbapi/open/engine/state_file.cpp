#include "engine/state_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace rdbopen {

namespace {

constexpr std::string_view usualFolder = "/run/addrpubd";

//  systemd separates several folders by colons.
std::string_view folderOf(const char* runtimeDirectory) {
    const std::string_view folders = runtimeDirectory == nullptr ? "" : runtimeDirectory;
    const std::string_view first = folders.substr(0, folders.find(':'));
    return first.starts_with('/') ? first : usualFolder;
}

//  Sets a write lock on the whole file. The lock belongs to the open file description. Does not wait. Returns false on
//  failure, for example if another description has a lock.
bool lockFile(int descriptor) noexcept {
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    return fcntl(descriptor, F_OFD_SETLK, &whole) == 0;
}

bool writeText(int descriptor, std::string_view text) noexcept {
    while (!text.empty()) {
        const ssize_t written = ::write(descriptor, text.data(), text.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

}  // namespace

void StateFile::chooseFolder(const char* runtimeDirectory) {
    if (chosen_.exchange(true))
        return;
    const std::string_view folder = folderOf(runtimeDirectory);
    constexpr std::size_t maxName = sizeof "/state.lock";
    if (folder.size() + maxName > maxPath)
        return;
    const auto length = static_cast<int>(folder.size());
    snprintf(newPath_, maxPath, "%.*s/state.new", length, folder.data());
    snprintf(lockPath_, maxPath, "%.*s/state.lock", length, folder.data());
    snprintf(statePath_, maxPath, "%.*s/state", length, folder.data());
    ready_ = true;
}

//  replace creates the new file before it checks open_. So, if replace still finds an open connection, the new file
//  exists before remove starts. Either unlink(newPath_) deletes the new file before its rename, or the rename came
//  first and unlink(statePath_) deletes it. The order of the two calls in remove is therefore important.
void StateFile::connectionClosed() noexcept {
    const int error = errno;
    if (open_.fetch_sub(1) == 1 && writer_ == getpid())
        remove();
    errno = error;
}

void StateFile::remove() const noexcept {
    unlink(newPath_);
    unlink(statePath_);
}

void StateFile::write(std::string_view text) noexcept {
    if (!ready_ || open_ == 0 || !lock())
        return;
    if (!replace(text)) {
        remove();
        closeCurrent();  // an open file would keep its space
        replace(text);
    }
}

//  The lock file may have been removed together with its folder, for example by systemd when another service ended.
//  Then another process may have locked a new one.
bool StateFile::lock() noexcept {
    struct stat status {};
    if (writer_ == getpid() && fstat(lockFd_, &status) == 0 && status.st_nlink != 0)
        return true;
    writer_ = 0;
    if (lockFd_ >= 0)
        close(lockFd_);
    lockFd_ = open(lockPath_, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    if (lockFd_ < 0)
        return false;
    giveLockToOwner();
    if (lockFile(lockFd_)) {
        writer_ = getpid();
        return true;
    }
    close(lockFd_);
    lockFd_ = -1;
    return false;
}

//  The lock file remains when the process ends. If root has created it in a folder of the service's user, this user has
//  to open it later.
void StateFile::giveLockToOwner() const noexcept {
    char folder[maxPath];
    std::memcpy(folder, statePath_, maxPath);
    *std::strrchr(folder, '/') = '\0';
    struct stat owner {};
    struct stat file {};
    if (stat(folder, &owner) == 0 && fstat(lockFd_, &file) == 0 && owner.st_uid != file.st_uid) [[maybe_unused]]
        const int ignored = fchown(lockFd_, owner.st_uid, owner.st_gid);
}

//  Returns false if the old file has to be removed. The descriptor of the new file stays open, because closing it would
//  release its lock.
bool StateFile::replace(std::string_view text) noexcept {
    const int descriptor = createNew(text);
    if (descriptor < 0)
        return false;
    const bool wanted = open_ != 0;
    if (!wanted || rename(newPath_, statePath_) != 0) {
        unlink(newPath_);
        close(descriptor);
        return !wanted;
    }
    closeCurrent();
    currentFd_ = descriptor;
    return true;
}

void StateFile::closeCurrent() noexcept {
    if (currentFd_ >= 0)
        close(std::exchange(currentFd_, -1));
}

//  Returns the descriptor of the new file, which is locked before other users can open it, or -1. If a process that was
//  killed has left such a file, remove deletes it, and the second attempt succeeds.
int StateFile::createNew(std::string_view text) const noexcept {
    const int descriptor = open(newPath_, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (descriptor < 0)
        return -1;
    if (lockFile(descriptor) && writeText(descriptor, text) && fchmod(descriptor, 0644) == 0)
        return descriptor;
    unlink(newPath_);
    close(descriptor);
    return -1;
}

}  // namespace rdbopen
