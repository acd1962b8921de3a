//  Reads a state file, and finds out from its lock whether its writer is running.
#include "status_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace status {

namespace {

constexpr std::size_t max_size = 1 << 20;  // bytes; a real file has a few kilobytes

//  The writer may replace the file while it is read, which releases the lock of the old file. The new file is then
//  read. The time between two writes is usually much longer than a read, so many replacements in a row are improbable.
constexpr int max_attempts = 20;

class Descriptor {
public:
    //  With O_NONBLOCK, opening a pipe does not wait.
    explicit Descriptor(const std::string& path)
        : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY)) {}
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

bool readAll(int fd, std::string& text, std::string& problem) {
    char piece[4096];
    ssize_t length = 0;
    while ((length = read(fd, piece, sizeof piece)) > 0 && text.size() <= max_size)
        text.append(piece, static_cast<std::size_t>(length));
    if (length < 0)
        problem = std::strerror(errno);
    else if (text.size() > max_size)
        problem = "it is larger than 1 MiB";
    return problem.empty();
}

//  Queries whether a read lock is possible. Only a write lock prevents a read lock. Read locks must not matter, because
//  every user who can read the file can take one.
bool isWriteLocked(int fd) {
    struct flock whole {};
    whole.l_type = F_RDLCK;
    whole.l_whence = SEEK_SET;
    return fcntl(fd, F_OFD_GETLK, &whole) == 0 && whole.l_type == F_WRLCK;
}

//  Returns whether path still names the file that is open.
bool isSameFile(int fd, const std::string& path) {
    struct stat opened {};
    struct stat named {};
    return fstat(fd, &opened) == 0 && stat(path.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
           opened.st_ino == named.st_ino;
}

//  Returns the identifier of this boot, or an empty text if it cannot be read.
std::string bootIdentifier() {
    const Descriptor file("/proc/sys/kernel/random/boot_id");
    std::string text;
    std::string problem;
    if (file.get() < 0 || !readAll(file.get(), text, problem))
        return {};
    return text.substr(0, text.find('\n'));
}

bool isOfEarlierBoot(const State& state) {
    const std::string boot = bootIdentifier();
    return state.boot != "-" && !boot.empty() && state.boot != boot;
}

//  Returns nothing if the file is not locked because it was replaced or removed meanwhile.
std::optional<Reading> readOnce(const std::string& path) {
    Reading reading;
    const Descriptor file(path);
    if (file.get() < 0) {
        if (errno != ENOENT && errno != ENOTDIR)
            reading = {Found::unknown, std::strerror(errno), {}, false};
        return reading;
    }
    struct stat state {};
    std::string text;
    reading.found = Found::unknown;
    if (fstat(file.get(), &state) != 0 || !S_ISREG(state.st_mode)) {
        reading.problem = "it is not a regular file";
        return reading;
    }
    if (!readAll(file.get(), text, reading.problem))
        return reading;
    const bool locked = isWriteLocked(file.get());
    if (!locked && !isSameFile(file.get(), path))
        return {};
    if (std::optional<State> parsed = parseState(text, reading.problem)) {
        reading.state = std::move(*parsed);
        reading.earlier_boot = isOfEarlierBoot(reading.state);
        reading.found = locked ? Found::running : Found::ended;
    }
    return reading;
}

}  // namespace

Reading readState(const std::string& folder) {
    const std::string path = folder + "/state";
    for (int attempt = 0; attempt < max_attempts; ++attempt)
        if (std::optional<Reading> reading = readOnce(path))
            return *reading;
    return {Found::unknown, "it is replaced continually", {}, false};
}

}  // namespace status
