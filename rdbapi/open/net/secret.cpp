#include "net/secret.h"

#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace rdbopen {

namespace {

constexpr std::string_view marker = "file:";

//  Returns 0 or errno. A pipe or a device could keep the reader waiting, so only regular files are read. All memory is
//  taken before the file is open.
int readWhole(const char* path, std::string& text) {
    std::string whole(maxSecretLength + 3, '\0');  // a line end, and one byte more to tell a longer file
    const int descriptor = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (descriptor < 0)
        return errno;
    struct stat status {};
    int error = fstat(descriptor, &status) == 0 ? 0 : errno;
    if (error == 0 && !S_ISREG(status.st_mode))
        error = EINVAL;
    std::size_t filled = 0;
    for (ssize_t taken = 1; error == 0 && taken != 0 && filled < whole.size();) {
        taken = read(descriptor, whole.data() + filled, whole.size() - filled);
        if (taken < 0 && errno != EINTR)
            error = errno;
        filled += taken > 0 ? static_cast<std::size_t>(taken) : 0;
    }
    close(descriptor);
    whole.resize(filled);
    text = std::move(whole);
    return error;
}

void dropLineEnd(std::string& text) {
    for (const char end : {'\n', '\r'})
        if (!text.empty() && text.back() == end)
            text.pop_back();
}

}  // namespace

std::string readSecret(const std::string& configured, std::string& secret) {
    const bool in_file = configured.starts_with(marker) && configured.substr(marker.size()).starts_with('/');
    if (!in_file) {
        secret = configured;
        return {};
    }
    const std::string path = configured.substr(marker.size());
    const std::string subject = "the password file " + path;
    if (const int error = readWhole(path.c_str(), secret); error != 0)
        return subject + " cannot be read: " + std::generic_category().message(error);
    dropLineEnd(secret);
    if (secret.empty())
        return subject + " is empty";
    if (secret.size() > maxSecretLength)
        return subject + " is too long";
    return {};
}

}  // namespace rdbopen
