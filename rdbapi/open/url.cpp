#include "url.h"

#include <algorithm>

namespace rdbopen {

namespace {

constexpr bool isAlpha(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

//  RFC 3986 section 3.1
constexpr bool isSchemeChar(char c) {
    return isAlpha(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
}

constexpr char toLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr int hexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

//  RFC 3986 section 2.1. Zero bytes are refused, encoded or not: no path holds one.
bool decodePath(std::string_view raw, std::string& path) {
    for (std::size_t i = 0; i < raw.size(); ++i) {
        char c = raw[i];
        if (c == '%') {
            const int high = i + 2 < raw.size() ? hexDigit(raw[i + 1]) : -1;
            const int low = i + 2 < raw.size() ? hexDigit(raw[i + 2]) : -1;
            if (high < 0 || low < 0)
                return false;
            c = static_cast<char>(high * 16 + low);
            i += 2;
        }
        if (c == '\0')
            return false;
        path.push_back(c);
    }
    return true;
}

}  // namespace

bool parseUrl(std::string_view text, Url& url, std::string& reason) {
    const auto refuse = [&reason](const char* why) {
        reason = why;
        return false;
    };
    const std::size_t colon = text.find("://");
    if (colon == std::string_view::npos || colon == 0)
        return refuse("malformed url: it does not begin with a scheme and \"://\"");
    const std::string_view scheme = text.substr(0, colon);
    if (!isAlpha(scheme.front()) || !std::all_of(scheme.begin(), scheme.end(), isSchemeChar))
        return refuse("malformed url: the scheme is not a word");
    if (text.find_first_of("?#") != std::string_view::npos)
        return refuse("malformed url: it has a query or a fragment (write ? as %3F and # as %23 in a path)");

    const std::string_view rest = text.substr(colon + 3);
    const std::size_t slash = std::min(rest.find('/'), rest.size());
    Url parsed;
    parsed.scheme.resize(scheme.size());
    std::transform(scheme.begin(), scheme.end(), parsed.scheme.begin(), toLower);
    parsed.authority = rest.substr(0, slash);
    if (!decodePath(rest.substr(slash), parsed.path))
        return refuse("malformed url: the path holds a bad percent-encoding or a zero byte");
    url = std::move(parsed);
    return true;
}

}  // namespace rdbopen
