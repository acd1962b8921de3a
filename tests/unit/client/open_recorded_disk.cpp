#include "open_recorded_disk.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace opentest {

namespace {

struct Call {
    enum class Kind { make, rename, remove, write, resize, flushFile, flushFolder };
    Kind kind;
    int file = -1;  // a unique number for each file
    std::string name, newName, bytes;
    std::size_t at = 0;

    bool isData() const { return kind == Kind::write || kind == Kind::resize; }
    bool isName() const { return kind == Kind::make || kind == Kind::rename || kind == Kind::remove; }
};

std::atomic<int> flushes{0};
std::function<int(int)> beforeFlush;
bool recording = false;
std::string folder;  // ends with "/"
std::vector<Call> calls;
std::size_t prepared = 0;  // number of calls that represent the initial files
std::map<ino_t, int> fileOf;
int files = 0;

bool isRecorded(const std::string& path) {
    return recording && path.starts_with(folder) && path.find('/', folder.size()) == std::string::npos &&
           !path.ends_with("-shm");
}

std::string nameOf(const std::string& path) {
    return path.substr(folder.size());
}

ino_t inodeOf(const char* path) {
    struct stat status {};
    return lstat(path, &status) == 0 ? status.st_ino : 0;
}

void noteFile(const std::string& path, ino_t inode) {
    fileOf[inode] = files++;
    calls.push_back({Call::Kind::make, fileOf[inode], nameOf(path), "", "", 0});
}

//  Returns the number of the file with descriptor fd, or -1.
int recordedFile(int fd) {
    struct stat status {};
    if (!recording || fstat(fd, &status) != 0)
        return -1;
    const auto found = fileOf.find(status.st_ino);
    return found == fileOf.end() ? -1 : found->second;
}

void noteData(int fd, Call::Kind kind, const void* bytes, std::size_t size, std::size_t at) {
    if (const int file = recordedFile(fd); file >= 0)
        calls.push_back({kind, file, "", "", std::string(static_cast<const char*>(bytes), bytes ? size : 0), at});
}

int flush(int fd, long number) {
    ++flushes;
    if (const int error = beforeFlush ? beforeFlush(fd) : 0; error != 0) {
        errno = error;
        return -1;
    }
    struct stat status {};
    if (recording && fstat(fd, &status) == 0 && S_ISDIR(status.st_mode))
        calls.push_back({Call::Kind::flushFolder, -1, "", "", "", 0});
    else
        noteData(fd, Call::Kind::flushFile, nullptr, 0, 0);
    return static_cast<int>(syscall(number, fd));
}

int openRecorded(const char* path, int flags, mode_t mode) {
    const bool missing = (flags & O_CREAT) != 0 && isRecorded(path) && inodeOf(path) == 0;
    const int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
    if (fd >= 0 && missing)
        noteFile(path, inodeOf(path));
    if (fd >= 0 && isRecorded(path) && (flags & O_TRUNC) != 0)
        noteData(fd, Call::Kind::resize, nullptr, 0, 0);
    return fd;
}

using Skipped = std::function<bool(std::size_t)>;

//  Returns the contents of the folder after the first count calls, except the skipped calls.
FolderContent replay(std::size_t count, const Skipped& skipped) {
    std::map<int, std::string> contents;
    std::map<std::string, int> names;
    for (std::size_t i = 0; i < count; ++i) {
        const Call& call = calls[i];
        std::string& bytes = contents[call.file];
        if (skipped(i))
            continue;
        switch (call.kind) {
        case Call::Kind::make:
            names[call.name] = call.file;
            break;
        case Call::Kind::rename:
            names.erase(call.name);
            names[call.newName] = call.file;
            break;
        case Call::Kind::remove:
            names.erase(call.name);
            break;
        case Call::Kind::write:
            bytes.resize(std::max(bytes.size(), call.at + call.bytes.size()));
            bytes.replace(call.at, call.bytes.size(), call.bytes);
            break;
        case Call::Kind::resize:
            bytes.resize(call.at);
            break;
        case Call::Kind::flushFile:
        case Call::Kind::flushFolder:
            break;
        }
    }
    FolderContent content;
    for (const auto& [name, file] : names)
        content[name] = contents[file];
    return content;
}

//  Returns whether the data or name of call i was flushed to the disk, if the power fails after count calls.
bool isFlushed(std::size_t i, std::size_t count) {
    for (std::size_t later = i + 1; later < count; ++later)
        if ((calls[i].isData() && calls[later].kind == Call::Kind::flushFile && calls[later].file == calls[i].file) ||
            (calls[i].isName() && calls[later].kind == Call::Kind::flushFolder))
            return true;
    return false;
}

void addCuts(std::size_t count, std::set<FolderContent>& folders) {
    std::vector<bool> open(count);  // calls that may be lost
    for (std::size_t i = 0; i < count; ++i)
        open[i] = (calls[i].isData() || calls[i].isName()) && !isFlushed(i, count);
    folders.insert(replay(count, [](std::size_t) { return false; }));
    folders.insert(replay(count, [&](std::size_t i) { return open[i]; }));
    folders.insert(replay(count, [&](std::size_t i) { return open[i] && calls[i].isData(); }));
    for (std::size_t one = 0; one < count; ++one) {
        if (!open[one])
            continue;
        folders.insert(replay(count, [&](std::size_t i) { return i == one; }));
        folders.insert(replay(count, [&](std::size_t i) { return i != one && open[i]; }));
        folders.insert(replay(count, [&](std::size_t i) { return i != one && open[i] && calls[i].isData(); }));
    }
}

}  // namespace

void startRecording(const std::string& path) {
    folder = path + "/";
    calls.clear();
    fileOf.clear();
    files = 0;
    recording = true;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        const std::string file = entry.path().string();
        if (!isRecorded(file))
            continue;
        noteFile(file, inodeOf(file.c_str()));
        std::ifstream stream(file, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
        calls.push_back({Call::Kind::write, files - 1, "", "", bytes, 0});
        calls.push_back({Call::Kind::flushFile, files - 1, "", "", "", 0});
        calls.push_back({Call::Kind::flushFolder, -1, "", "", "", 0});
    }
    prepared = calls.size();
}

void stopRecording() {
    recording = false;
}

std::set<FolderContent> cutsAtTheEnd() {
    std::set<FolderContent> folders;
    addCuts(calls.size(), folders);
    return folders;
}

std::set<FolderContent> cutsAtAnyMoment() {
    std::set<FolderContent> folders;
    for (std::size_t count = prepared; count <= calls.size(); ++count)
        addCuts(count, folders);
    return folders;
}

int flushCount() {
    return flushes;
}

void setBeforeFlush(std::function<int(int)> action) {
    beforeFlush = std::move(action);
}

}  // namespace opentest

//  These functions replace those of the C library, also for SQLite.
extern "C" {

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return opentest::openRecorded(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return opentest::openRecorded(path, flags, mode);
}

ssize_t write(int fd, const void* bytes, size_t size) {
    const auto at = opentest::recordedFile(fd) < 0 ? 0 : lseek(fd, 0, SEEK_CUR);
    const auto written = syscall(SYS_write, fd, bytes, size);
    if (written > 0)
        opentest::noteData(fd, opentest::Call::Kind::write, bytes, static_cast<size_t>(written),
                           static_cast<std::size_t>(at));
    return written;
}

ssize_t pwrite(int fd, const void* bytes, size_t size, off_t at) {
    const auto written = syscall(SYS_pwrite64, fd, bytes, size, at);
    if (written > 0)
        opentest::noteData(fd, opentest::Call::Kind::write, bytes, static_cast<size_t>(written),
                           static_cast<std::size_t>(at));
    return written;
}

ssize_t pwrite64(int fd, const void* bytes, size_t size, off64_t at) {
    return pwrite(fd, bytes, size, at);
}

int ftruncate(int fd, off_t size) noexcept {
    const auto failed = static_cast<int>(syscall(SYS_ftruncate, fd, size));
    if (failed == 0)
        opentest::noteData(fd, opentest::Call::Kind::resize, nullptr, 0, static_cast<std::size_t>(size));
    return failed;
}

int ftruncate64(int fd, off64_t size) noexcept {
    return ftruncate(fd, size);
}

int fsync(int fd) {
    return opentest::flush(fd, SYS_fsync);
}

int fdatasync(int fd) {
    return opentest::flush(fd, SYS_fdatasync);
}

int unlink(const char* path) noexcept {
    const auto failed = static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
    if (failed == 0 && opentest::isRecorded(path))
        opentest::calls.push_back({opentest::Call::Kind::remove, -1, opentest::nameOf(path), "", "", 0});
    return failed;
}

int rename(const char* from, const char* to) noexcept {
    const ino_t inode = opentest::inodeOf(from);
    const auto failed = static_cast<int>(syscall(SYS_renameat, AT_FDCWD, from, AT_FDCWD, to));
    if (failed == 0 && opentest::isRecorded(from) && opentest::isRecorded(to))
        opentest::calls.push_back({opentest::Call::Kind::rename, opentest::fileOf[inode], opentest::nameOf(from),
                                   opentest::nameOf(to), "", 0});
    return failed;
}

}  // extern "C"
