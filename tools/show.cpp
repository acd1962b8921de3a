#include "show.h"

#include <algorithm>
#include <cctype>

namespace check {

namespace {

constexpr std::string_view mask = "***";

//  Options of the log url and of the urls of the open client library.
constexpr std::string_view known_options[] = {"algorithm", "check", "expire", "level", "skip", "ttl"};

std::string escaped(std::string_view text, std::string_view with_backslash) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (with_backslash.find(c) != std::string_view::npos) {
            out += '\\';
            out += c;
        } else if (byte >= 0x20 && byte < 0x7f) {
            out += c;
        } else {
            out += "\\x";
            out += digits[byte >> 4];
            out += digits[byte & 15];
        }
    }
    return out;
}

bool isKnownOption(std::string_view name) {
    const auto same = [name](std::string_view known) {
        return std::equal(name.begin(), name.end(), known.begin(), known.end(),
                          [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; });
    };
    return std::any_of(std::begin(known_options), std::end(known_options), same);
}

//  Returns whether value contains only words, numbers and lists of these. Other text may be a secret that follows a
//  misplaced "?" or "=".
bool isPlain(std::string_view value) {
    return std::all_of(value.begin(), value.end(),
                       [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == ','; });
}

std::string withoutSecret(std::string_view option) {
    const std::size_t equals = option.find('=');
    if (equals == std::string_view::npos)
        return std::string(option.empty() ? option : mask);
    const std::string_view value = option.substr(equals + 1);
    const bool shown = value.empty() || (isKnownOption(option.substr(0, equals)) && isPlain(value));
    return std::string(option.substr(0, equals + 1)) + std::string(shown ? value : mask);
}

//  Returns the part of a url after "?", with secrets masked.
std::string queryWithoutSecrets(std::string_view query) {
    std::string out;
    for (bool more = true; more;) {
        const std::size_t end = std::min(query.find('&'), query.size());
        out += withoutSecret(query.substr(0, end));
        more = end < query.size();
        out += more ? "&" : "";
        query.remove_prefix(more ? end + 1 : end);
    }
    return out;
}

}  // namespace

std::string printable(std::string_view text) {
    return escaped(text, "\\");
}

std::string quoted(std::string_view text) {
    return '"' + escaped(text, "\\\"") + '"';
}

//  A password may contain any byte, including "/" and "?", so the last "@" of the whole url ends it.
std::string withoutSecrets(const std::string& url) {
    std::string shown = url;
    const std::size_t slashes = url.find("://");
    const std::size_t server = slashes == std::string::npos ? 0 : slashes + 3;
    const std::size_t at = url.rfind('@');
    if (at != std::string::npos && at >= server && url[server] != '/')
        shown.replace(server, at - server, mask);
    const std::size_t query = shown.find('?');
    if (query == std::string::npos)
        return shown;
    return shown.substr(0, query + 1) + queryWithoutSecrets(std::string_view(shown).substr(query + 1));
}

}  // namespace check
