#include "net/secret.h"

#include "files/descriptor.h"

#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>

namespace rdbopen {

namespace {

constexpr std::string_view marker = "file:";

//  Only regular files are read, because a pipe or a device could block the reader.
Result<std::string> readRegularFile(const char* path) {
    constexpr std::size_t maxLineEnd = 2;
    const Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat inode {};
    if (file.get() < 0 || fstat(file.get(), &inode) != 0)
        return systemFailure(errno);
    return S_ISREG(inode.st_mode) ? readToEnd(file.get(), maxSecretLength + maxLineEnd) : systemFailure(EINVAL);
}

void dropLineEnd(std::string& text) {
    for (const char end : {'\n', '\r'})
        if (!text.empty() && text.back() == end)
            text.pop_back();
}

}  // namespace

Result<std::string> readSecret(const std::string& configured) {
    const bool inFile = configured.starts_with(marker) && configured.substr(marker.size()).starts_with('/');
    if (!inFile)
        return configured;
    const std::string path = configured.substr(marker.size());
    const std::string subject = "the password file " + path;
    Result<std::string> secret = readRegularFile(path.c_str());
    if (secret.ok())
        dropLineEnd(*secret);
    if (secret.status().code == errorTooLarge || (secret.ok() && secret->size() > maxSecretLength))
        return backendFailed(subject + " is too long");
    if (!secret.ok())
        return failedTo(subject + " cannot be read", secret.status());
    return secret->empty() ? backendFailed(subject + " is empty") : std::move(secret);
}

}  // namespace rdbopen
