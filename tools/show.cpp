#include "show.h"

#include <algorithm>
#include <cctype>

namespace check {

namespace {

constexpr std::string_view mask = "***";

//  Parts of option names, in lower case.
constexpr std::string_view secret_words[] = {"key", "pass", "pswd", "pwd", "secret", "token"};

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

bool isSecretName(std::string name) {
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return std::any_of(std::begin(secret_words), std::end(secret_words),
                       [&name](std::string_view word) { return name.find(word) != std::string::npos; });
}

void maskOptions(std::string& url) {
    for (std::size_t at = url.find('?'); at != std::string::npos;) {
        const std::size_t name = at + 1;
        std::size_t end = std::min(url.find('&', name), url.size());
        const std::size_t equals = url.find('=', name);
        if (equals < end && isSecretName(url.substr(name, equals - name))) {
            url.replace(equals + 1, end - equals - 1, mask);
            end = equals + 1 + mask.size();
        }
        at = end < url.size() ? end : std::string::npos;
    }
}

}  // namespace

std::string printable(std::string_view text) {
    return escaped(text, "\\");
}

std::string quoted(std::string_view text) {
    return '"' + escaped(text, "\\\"") + '"';
}

//  A password may hold any byte, "/" and "?" too, so the last "@" of the whole url counts.
std::string withoutSecrets(const std::string& url) {
    std::string shown = url;
    const std::size_t slashes = url.find("://");
    const std::size_t server = slashes == std::string::npos ? 0 : slashes + 3;
    const std::size_t at = url.rfind('@');
    if (at != std::string::npos && at >= server && url[server] != '/')
        shown.replace(server, at - server, mask);
    maskOptions(shown);
    return shown;
}

}  // namespace check
