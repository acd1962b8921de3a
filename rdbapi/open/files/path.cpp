#include "files/path.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <sys/stat.h>
#include <unistd.h>

namespace rdbopen {

namespace {

constexpr int maxLinks = 40;  // the kernel's own limit, path_resolution(7)

Status failed(const std::string& path, int error) {
    return failedTo(path, systemFailure(error));
}

//  Returns whether all users may create files in the folder, and only owners may remove them. Like the kernel, ignores
//  the permissions of the group: an administrator chooses the members of the group.
bool isShared(const struct stat& folder) {
    return (folder.st_mode & S_ISVTX) != 0 && (folder.st_mode & S_IWOTH) != 0;
}

bool mayBeFollowed(const struct stat& link, const struct stat& folder) {
    return !isShared(folder) || link.st_uid == geteuid() || link.st_uid == folder.st_uid;
}

//  Resolves one path. Invariant: done_ ends with "/" and contains no link, "." or "..".
class Walk {
public:
    Walk(const std::string& path, FilePlace& place) : rest_(path), place_(place) {}

    //  Resolves the whole path; its last component need not exist. A failure's reason contains the path that cannot be
    //  resolved.
    Status run() {
        place_ = FilePlace();
        Status status = goTo("/");
        while (status.ok() && place_.name.empty())
            status = step(takeName());
        place_.directory = done_;
        return status;
    }

private:
    //  Removes the next component and the slashes before it from rest_ and returns the component.
    std::string takeName() {
        rest_.erase(0, std::min(rest_.find_first_not_of('/'), rest_.size()));
        const std::size_t end = std::min(rest_.find('/'), rest_.size());
        std::string name = rest_.substr(0, end);
        rest_.erase(0, end);
        return name;
    }

    Status step(const std::string& name) {
        if (name == "." && !rest_.empty())
            return {};
        if (name == ".." && !rest_.empty())
            return leave();
        if (name.empty() || name == "." || name == "..")
            return failed(done_ + name, EISDIR);
        struct stat found {};
        const std::string path = done_ + name;
        if (lstat(path.c_str(), &found) != 0 && (errno != ENOENT || !rest_.empty()))
            return failed(path, errno);
        if (S_ISLNK(found.st_mode))
            return follow(path, found);
        if (rest_.empty()) {
            place_.name = name;
            return {};
        }
        if (!S_ISDIR(found.st_mode))
            return failed(path, ENOTDIR);
        return enter(path + "/", found);
    }

    Status enter(const std::string& directory, const struct stat& found) {
        done_ = directory;
        folder_ = found;
        if (place_.shared.empty() && isShared(folder_))
            place_.shared = done_;
        return {};
    }

    //  Requires: directory contains no link. Except for the root, it does not end with "/", because lstat would then
    //  follow a link.
    Status goTo(const std::string& directory) {
        struct stat found {};
        if (lstat(directory.c_str(), &found) != 0)
            return failed(directory, errno);
        return enter(directory == "/" ? directory : directory + "/", found);
    }

    //  Goes to the parent folder; the root is its own parent.
    Status leave() {
        const std::size_t parent = done_.size() < 2 ? 0 : done_.rfind('/', done_.size() - 2);
        return goTo(parent == 0 ? "/" : done_.substr(0, parent));
    }

    Status follow(const std::string& path, const struct stat& link) {
        if (!mayBeFollowed(link, folder_))
            return backendFailed("the link " + path + " in a folder that others can write belongs to somebody else");
        if (++links_ > maxLinks)
            return failed(path, ELOOP);
        char target[PATH_MAX];
        const ssize_t length = readlink(path.c_str(), target, sizeof target);
        if (length < 0)
            return failed(path, errno);
        rest_.insert(0, target, static_cast<std::size_t>(length));
        return rest_.front() == '/' ? goTo("/") : Status{};
    }

    std::string done_;
    struct stat folder_ {};  // status of done_
    std::string rest_;
    FilePlace& place_;
    int links_ = 0;
};

}  // namespace

Status resolveFile(const std::string& path, FilePlace& place) {
    return Walk(path, place).run();
}

}  // namespace rdbopen
