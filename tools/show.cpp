#include "show.h"

#include <algorithm>
#include <cctype>
#include <span>

namespace check {

namespace {

constexpr std::string_view mask = "***";

//  Options of the log url and of the urls of the open client library whose values are words, numbers or lists of these.
constexpr std::string_view known_options[] = {"addresses", "algorithm", "check",     "db", "expire",
                                              "history",   "level",     "parameter", "ttl"};

//  Options whose values are words, patterns of interface names or zones; then options whose values are IPv6 prefixes.
constexpr std::string_view word_options[] = {"ptr", "skip"};
constexpr std::string_view prefix_options[] = {"only"};

//  Options whose values are paths or host names. The option "key" is missing here: by mistake, its value may be the
//  key itself instead of the path of its file.
constexpr std::string_view place_options[] = {"ca", "cert", "name"};

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

bool isOneOf(std::span<const std::string_view> options, std::string_view name) {
    const auto same = [name](std::string_view known) {
        return std::equal(name.begin(), name.end(), known.begin(), known.end(),
                          [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; });
    };
    return std::any_of(options.begin(), options.end(), same);
}

//  Returns whether value contains only letters, digits and marks.
bool consistsOf(std::string_view marks, std::string_view value) {
    return std::all_of(value.begin(), value.end(), [marks](unsigned char c) {
        return std::isalnum(c) != 0 || marks.find(static_cast<char>(c)) != std::string_view::npos;
    });
}

//  Returns whether a value contains only what its option allows. Other text may be a secret that follows a misplaced
//  "?" or "=".
bool isPlain(std::string_view name, std::string_view value) {
    return (isOneOf(known_options, name) && consistsOf("-,", value)) ||
           (isOneOf(place_options, name) && consistsOf("-./_:", value)) ||
           (isOneOf(word_options, name) && consistsOf("-,:*?[]_.", value)) ||
           (isOneOf(prefix_options, name) && value.find_first_not_of("0123456789abcdefABCDEF:/,") == value.npos);
}

std::string withoutSecret(std::string_view option) {
    const std::size_t equals = option.find('=');
    if (equals == std::string_view::npos)
        return std::string(option.empty() ? option : mask);
    const std::string_view value = option.substr(equals + 1);
    const bool shown = value.empty() || isPlain(option.substr(0, equals), value);
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
