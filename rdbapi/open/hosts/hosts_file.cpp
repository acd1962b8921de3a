#include "hosts/hosts_file.h"

#include <arpa/inet.h>

namespace rdbopen {

namespace {

bool isAddress(std::string_view text) {
    char terminated[INET6_ADDRSTRLEN];
    //  inet_pton would ignore the text after a zero byte.
    if (text.size() >= sizeof terminated || text.find('\0') != std::string_view::npos)
        return false;
    terminated[text.copy(terminated, text.size())] = '\0';
    in6_addr binary{};
    return inet_pton(AF_INET, terminated, &binary) == 1 || inet_pton(AF_INET6, terminated, &binary) == 1;
}

//  Returns the text that follows the address in each line that this library writes for name.
std::string tailOf(std::string_view name) {
    std::string tail = " ";
    tail.append(name).append(" # addrpubd ").append(name).push_back('\n');
    return tail;
}

}  // namespace

std::string withHostLines(std::string_view file, std::string_view name, std::span<const std::string> addresses) {
    const std::string tail = tailOf(name);
    std::string own;
    for (const std::string& address : addresses)
        own.append(address).append(tail);

    std::string result;
    result.reserve(file.size() + own.size());
    bool placed = false;
    while (!file.empty()) {
        const std::size_t feed = file.find('\n');
        const bool complete = feed != std::string_view::npos;
        const std::string_view line = file.substr(0, complete ? feed + 1 : file.size());
        file.remove_prefix(line.size());
        const bool isOwn = line.ends_with(tail) && isAddress(line.substr(0, line.size() - tail.size()));
        if (!placed && (isOwn || !complete)) {
            result.append(own);
            placed = true;
        }
        if (!isOwn)
            result.append(line);
    }
    return placed ? result : result.append(own);
}

}  // namespace rdbopen
