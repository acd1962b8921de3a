#include "net/url.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace rdbopen {

namespace {

constexpr bool isAlpha(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

//  Returns whether a scheme may contain c (RFC 3986 section 3.1).
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

//  Decodes percent-encoding (RFC 3986 section 2.1). Returns nothing if raw is malformed or contains a zero byte,
//  encoded or not: no valid path or option contains a zero byte.
std::optional<std::string> decode(std::string_view raw) {
    std::string decoded;
    for (std::size_t i = 0; i < raw.size(); ++i) {
        char c = raw[i];
        if (c == '%') {
            const int high = i + 2 < raw.size() ? hexDigit(raw[i + 1]) : -1;
            const int low = i + 2 < raw.size() ? hexDigit(raw[i + 2]) : -1;
            if (high < 0 || low < 0)
                return std::nullopt;
            c = static_cast<char>(high * 16 + low);
            i += 2;
        }
        if (c == '\0')
            return std::nullopt;
        decoded.push_back(c);
    }
    return decoded;
}

Result<std::vector<UrlOption>> decodeOptions(std::string_view query) {
    std::vector<UrlOption> options;
    for (bool more = true; more;) {
        const std::size_t end = std::min(query.find('&'), query.size());
        const std::string_view pair = query.substr(0, end);
        const std::size_t equals = pair.find('=');
        const bool named = equals != std::string_view::npos && equals != 0;
        auto name = decode(pair.substr(0, named ? equals : 0));
        auto value = decode(pair.substr(named ? equals + 1 : 0));
        if (!named || !name || !value)
            return malformedUrl("the query is not a list of NAME=VALUE (write ? as %3F in a path)");
        options.push_back({std::move(*name), std::move(*value)});
        more = end < query.size();
        query.remove_prefix(more ? end + 1 : end);
    }
    return options;
}

//  Returns whether getaddrinfo(3) may resolve host. Accepts more than isDnsName, for example a name with a final dot.
//  The characters are those of names and, in brackets, of IPv6 addresses (RFC 4291 section 2.2) with a zone (RFC 4007
//  section 11).
bool mayBeServer(std::string_view host, bool inBrackets) {
    constexpr std::size_t maxHostLength = 253;
    if (host.empty() || host.size() > maxHostLength)
        return false;
    return std::all_of(host.begin(), host.end(), [inBrackets](char c) {
        if (isAlpha(c) || (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_')
            return true;
        return inBrackets && (c == ':' || c == '%');
    });
}

//  Parses HOST[:PORT].
Result<Server> parseServer(std::string_view text, std::uint16_t defaultPort) {
    constexpr std::uint32_t maxPort = 65535;
    const bool brackets = text.starts_with('[');
    const std::size_t end = brackets ? text.find(']') : std::min(text.find(':'), text.size());
    if (end == std::string_view::npos)
        return malformedUrl("the address of the server has no closing bracket");
    const std::string_view host = brackets ? text.substr(1, end - 1) : text.substr(0, end);
    if (!mayBeServer(host, brackets))
        return malformedUrl("it names no server");
    const std::string_view rest = text.substr(brackets ? end + 1 : end);
    if (rest.empty())
        return Server{std::string(host), defaultPort};
    const std::uint32_t port = rest.front() == ':' ? parseNumber(rest.substr(1), maxPort).value_or(0) : 0;
    if (port == 0)
        return malformedUrl("the port of the server is not a number from 1 to 65535");
    return Server{std::string(host), static_cast<std::uint16_t>(port)};
}

}  // namespace

Result<Url> parseUrl(std::string_view text) {
    const std::size_t colon = text.find(':');
    const bool bare = colon != std::string_view::npos && colon + 1 == text.size();
    if (colon == std::string_view::npos || colon == 0 || (!bare && text.substr(colon, 3) != "://"))
        return malformedUrl("it does not begin with a scheme and \"://\"");
    const std::string_view scheme = text.substr(0, colon);
    if (!isAlpha(scheme.front()) || !std::all_of(scheme.begin(), scheme.end(), isSchemeChar))
        return malformedUrl("the scheme is not a word");
    if (text.find('#') != std::string_view::npos)
        return malformedUrl("it has a fragment (write # as %23)");

    std::string_view rest = bare ? std::string_view() : text.substr(colon + 3);
    Url url;
    url.scheme.resize(scheme.size());
    std::transform(scheme.begin(), scheme.end(), url.scheme.begin(), toLower);
    const std::size_t question = rest.find('?');
    if (question != std::string_view::npos) {
        Result<std::vector<UrlOption>> options = decodeOptions(rest.substr(question + 1));
        if (!options.ok())
            return options.status();
        url.options = std::move(*options);
    }
    rest = rest.substr(0, question);
    const std::size_t slash = std::min(rest.find('/'), rest.size());
    url.authority = rest.substr(0, slash);
    auto path = decode(rest.substr(slash));
    if (!path)
        return malformedUrl("the path holds a bad percent-encoding or a zero byte");
    url.path = std::move(*path);
    return url;
}

std::optional<std::uint32_t> parseNumber(std::string_view text, std::uint32_t max) {
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number > max)
        return std::nullopt;
    return number;
}

Result<std::vector<Server>> parseServers(std::string_view authority, std::uint16_t defaultPort) {
    if (authority.find('@') != std::string_view::npos)
        return malformedUrl("the server part contains \"@\" (user and password have settings of their own)");
    std::vector<Server> servers;
    for (bool more = true; more;) {
        const std::size_t end = std::min(authority.find(','), authority.size());
        Result<Server> server = parseServer(authority.substr(0, end), defaultPort);
        if (!server.ok())
            return server.status();
        if (std::find(servers.begin(), servers.end(), *server) != servers.end())
            return malformedUrl("it names a server twice");
        if (servers.size() == maxServers)
            return malformedUrl("it names more than " + std::to_string(maxServers) + " servers");
        servers.push_back(std::move(*server));
        more = end < authority.size();
        authority.remove_prefix(more ? end + 1 : end);
    }
    return servers;
}

std::string serverText(const Server& server) {
    const std::string port = ":" + std::to_string(server.port);
    return server.host.find(':') == std::string::npos ? server.host + port : "[" + server.host + "]" + port;
}

std::string serversText(const std::vector<Server>& servers) {
    std::string text;
    for (const Server& server : servers)
        text += (text.empty() ? "" : ",") + serverText(server);
    return text;
}

Result<std::string> filePathOf(const Url& url) {
    if (url.authority.empty() && url.path.size() > 1 && url.path.front() == '/' && url.path.back() != '/')
        return url.path;
    return malformedUrl("it is not " + url.scheme + ":// and the absolute path of a file, as in " + url.scheme +
                        ":///var/lib/addrpubd/file");
}

Status parseHistory(std::string_view text, std::uint32_t& history) {
    const std::optional<std::uint32_t> number = parseNumber(text, maxHistory);
    if (!number)
        return malformedUrl("history is not a number from 0 to " + std::to_string(maxHistory));
    history = *number;
    return {};
}

}  // namespace rdbopen
