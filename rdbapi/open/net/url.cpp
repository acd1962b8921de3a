#include "net/url.h"

#include <algorithm>
#include <charconv>
#include <utility>

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

//  RFC 3986 section 2.1. Zero bytes are refused, encoded or not: no path and no option contains one.
bool decode(std::string_view raw, std::string& decoded) {
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
        decoded.push_back(c);
    }
    return true;
}

bool decodeOptions(std::string_view query, std::vector<UrlOption>& options) {
    for (bool more = true; more;) {
        const std::size_t end = std::min(query.find('&'), query.size());
        const std::string_view pair = query.substr(0, end);
        const std::size_t equals = pair.find('=');
        UrlOption option;
        if (equals == std::string_view::npos || equals == 0 || !decode(pair.substr(0, equals), option.name) ||
            !decode(pair.substr(equals + 1), option.value))
            return false;
        options.push_back(std::move(option));
        more = end < query.size();
        query.remove_prefix(more ? end + 1 : end);
    }
    return true;
}

//  Refuses only names that getaddrinfo(3) cannot resolve: a name in /etc/hosts, and a name with a final dot, which
//  isDnsName refuses, may be a server. The characters are those of names and of IPv6 addresses (RFC 4291 section 2.2,
//  with a zone as in RFC 4007 section 11).
bool mayBeServer(std::string_view host, bool in_brackets) {
    constexpr std::size_t maxHostLength = 253;
    if (host.empty() || host.size() > maxHostLength)
        return false;
    return std::all_of(host.begin(), host.end(), [in_brackets](char c) {
        if (isAlpha(c) || (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_')
            return true;
        return in_brackets && (c == ':' || c == '%');
    });
}

}  // namespace

bool parseUrl(std::string_view text, Url& url, std::string& reason) {
    const auto refuse = [&reason](const char* why) {
        reason = why;
        return false;
    };
    const std::size_t colon = text.find(':');
    const bool bare = colon != std::string_view::npos && colon + 1 == text.size();
    if (colon == std::string_view::npos || colon == 0 || (!bare && text.substr(colon, 3) != "://"))
        return refuse("malformed url: it does not begin with a scheme and \"://\"");
    const std::string_view scheme = text.substr(0, colon);
    if (!isAlpha(scheme.front()) || !std::all_of(scheme.begin(), scheme.end(), isSchemeChar))
        return refuse("malformed url: the scheme is not a word");
    if (text.find('#') != std::string_view::npos)
        return refuse("malformed url: it has a fragment (write # as %23)");

    std::string_view rest = bare ? std::string_view() : text.substr(colon + 3);
    Url parsed;
    parsed.scheme.resize(scheme.size());
    std::transform(scheme.begin(), scheme.end(), parsed.scheme.begin(), toLower);
    const std::size_t question = rest.find('?');
    if (question != std::string_view::npos && !decodeOptions(rest.substr(question + 1), parsed.options))
        return refuse("malformed url: the query is not a list of NAME=VALUE (write ? as %3F in a path)");
    rest = rest.substr(0, question);
    const std::size_t slash = std::min(rest.find('/'), rest.size());
    parsed.authority = rest.substr(0, slash);
    if (!decode(rest.substr(slash), parsed.path))
        return refuse("malformed url: the path holds a bad percent-encoding or a zero byte");
    url = std::move(parsed);
    return true;
}

bool parseNumber(std::string_view text, std::uint32_t max, std::uint32_t& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number <= max;
}

bool parseServer(std::string_view authority, std::uint16_t default_port, Server& server, std::string& reason) {
    constexpr std::uint32_t maxPort = 65535;
    const auto refuse = [&reason](const char* why) {
        reason = why;
        return false;
    };
    if (authority.find('@') != std::string_view::npos)
        return refuse("malformed url: user and password have settings of their own and do not belong into the url");
    const bool brackets = authority.starts_with('[');
    const std::size_t end = brackets ? authority.find(']') : std::min(authority.find(':'), authority.size());
    if (end == std::string_view::npos)
        return refuse("malformed url: the address of the server has no closing bracket");
    const std::string_view host = brackets ? authority.substr(1, end - 1) : authority.substr(0, end);
    if (!mayBeServer(host, brackets))
        return refuse("malformed url: it names no server");
    std::string_view rest = authority.substr(brackets ? end + 1 : end);
    std::uint32_t port = default_port;
    if (!rest.empty() && (rest.front() != ':' || !parseNumber(rest.substr(1), maxPort, port) || port == 0))
        return refuse("malformed url: the port of the server is not a number from 1 to 65535");
    server = {std::string(host), static_cast<std::uint16_t>(port)};
    return true;
}

std::string serverText(const Server& server) {
    const std::string port = ":" + std::to_string(server.port);
    return server.host.find(':') == std::string::npos ? server.host + port : "[" + server.host + "]" + port;
}

bool isFileUrl(const Url& url, std::string& reason) {
    if (!url.options.empty()) {
        reason = "malformed url: " + url.scheme + " has no options (write ? as %3F in a path)";
        return false;
    }
    if (url.authority.empty() && url.path.size() > 1 && url.path.front() == '/' && url.path.back() != '/')
        return true;
    reason = "malformed url: " + url.scheme + " needs the absolute path of a file, as in " + url.scheme +
             ":///var/lib/addrpubd/file";
    return false;
}

}  // namespace rdbopen
