#include "hosts/hosts_file.h"

#include <algorithm>
#include <arpa/inet.h>
#include <strings.h>

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

bool isOwnLine(std::string_view line, const std::string& tail) {
    return line.ends_with(tail) && isAddress(line.substr(0, line.size() - tail.size()));
}

//  Returns whether name is one of the words after the first word and before a comment. Upper and lower case are equal.
bool namesHost(std::string_view line, std::string_view name) {
    line = line.substr(0, line.find_first_of("#\n"));
    for (bool first = true;; first = false) {
        line.remove_prefix(std::min(line.find_first_not_of(" \t\r"), line.size()));
        if (line.empty())
            return false;
        const std::string word(line.substr(0, line.find_first_of(" \t\r")));
        if (!first && word.size() == name.size() && strncasecmp(word.c_str(), name.data(), name.size()) == 0)
            return true;
        line.remove_prefix(word.size());
    }
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
        const bool isOwn = isOwnLine(line, tail);
        if (!placed && (isOwn || !complete)) {
            result.append(own);
            placed = true;
        }
        if (!isOwn)
            result.append(line);
    }
    return placed ? result : result.append(own);
}

HostLines hostLines(std::string_view file, std::string_view name) {
    const std::string tail = tailOf(name);
    HostLines found;
    while (!file.empty()) {
        const std::string_view line = file.substr(0, std::min(file.find('\n'), file.size() - 1) + 1);
        file.remove_prefix(line.size());
        std::string text(line.substr(0, line.find('\n')));
        if (isOwnLine(line, tail))
            found.own.push_back(std::move(text));
        else if (namesHost(line, name))
            found.others.push_back(std::move(text));
    }
    return found;
}

}  // namespace rdbopen
