#include "net/secret.h"

#include "files/descriptor.h"

#include <string_view>

namespace rdbopen {

namespace {

constexpr std::string_view marker = "file:";

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
    constexpr std::size_t maxLineEnd = 2;
    Result<std::string> secret = readRegularFile(path.c_str(), maxSecretLength + maxLineEnd);
    if (secret.ok())
        dropLineEnd(*secret);
    if (secret.status().code == errorTooLarge || (secret.ok() && secret->size() > maxSecretLength))
        return backendFailed(subject + " is too long");
    if (!secret.ok())
        return failedTo(subject + " cannot be read", secret.status());
    return secret->empty() ? backendFailed(subject + " is empty") : std::move(secret);
}

}  // namespace rdbopen
