#include "net/host_name.h"

#include <algorithm>

namespace rdbopen {

namespace {

constexpr std::size_t maxNameLength = 253;
constexpr std::size_t maxLabelLength = 63;

bool isLabelChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

}  // namespace

bool isDnsName(std::string_view name) {
    if (name.size() > maxNameLength)
        return false;
    for (bool more = true; more;) {
        const std::size_t length = std::min(name.find('.'), name.size());
        const std::string_view label = name.substr(0, length);
        if (label.empty() || length > maxLabelLength || !std::all_of(label.begin(), label.end(), isLabelChar))
            return false;
        more = length < name.size();
        name.remove_prefix(more ? length + 1 : length);
    }
    return true;
}

std::string lowerCase(std::string_view text) {
    std::string lower(text);
    for (char& c : lower)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return lower;
}

}  // namespace rdbopen
