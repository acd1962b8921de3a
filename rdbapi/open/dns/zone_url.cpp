#include "dns/zone_url.h"

#include "dns/tsig.h"

#include <algorithm>

namespace rdbopen {

namespace {

constexpr std::uint16_t dnsPort = 53;
constexpr std::uint32_t maxTtl = 2147483647;
constexpr std::uint32_t maxCheckInterval = 86400;  // s

//  Each of these stores an option's value. Returns an empty text, or a description of valid values.
std::string takeTtl(const std::string& value, DnsZone& zone) {
    return parseNumber(value, maxTtl, zone.ttl) ? "" : "a number of seconds from 0 to 2147483647";
}

std::string takeAlgorithm(const std::string& value, DnsZone& zone) {
    if (!isTsigAlgorithm(value))
        return "hmac-sha1, hmac-sha256, hmac-sha384 or hmac-sha512";
    zone.algorithm = value;
    return {};
}

std::string takeSkip(const std::string& value, DnsZone& zone) {
    static constexpr struct {
        std::string_view word;
        bool DnsZone::*flag;
    } words[] = {
        {"ula", &DnsZone::skipUla}, {"temporary", &DnsZone::skipTemporary}, {"deprecated", &DnsZone::skipDeprecated}};
    std::string_view rest = value;
    for (bool more = true; more;) {
        const std::size_t end = std::min(rest.find(','), rest.size());
        const auto* found =
            std::find_if(std::begin(words), std::end(words),
                         [word = rest.substr(0, end)](const auto& known) { return known.word == word; });
        if (found == std::end(words) || zone.*found->flag)
            return "a list of ula, temporary and deprecated, each once";
        zone.*found->flag = true;
        more = end < rest.size();
        rest.remove_prefix(more ? end + 1 : end);
    }
    return {};
}

std::string takeCheck(const std::string& value, DnsZone& zone) {
    std::uint32_t seconds = 0;
    if (!parseNumber(value, maxCheckInterval, seconds))
        return "a number of seconds from 0 to 86400";
    zone.check = std::chrono::seconds(seconds);
    return {};
}

struct Option {
    std::string_view name;
    std::string (*take)(const std::string& value, DnsZone& zone);
};

constexpr Option options[] = {
    {"ttl", takeTtl},
    {"algorithm", takeAlgorithm},
    {"skip", takeSkip},
    {"check", takeCheck},
};

//  A reason never contains the url, because it may contain a misplaced secret.
bool takeOptions(const Url& url, DnsZone& zone, std::string& reason) {
    const auto refuse = [&reason](const std::string& why) {
        reason = "malformed url: " + why;
        return false;
    };
    bool seen[std::size(options)] = {};
    for (const UrlOption& given : url.options) {
        const auto* option = std::find_if(std::begin(options), std::end(options),
                                          [&given](const Option& known) { return known.name == given.name; });
        if (option == std::end(options))
            return refuse("the options are ttl, algorithm, skip and check");
        bool& before = seen[option - std::begin(options)];
        if (before)
            return refuse("the option " + std::string(option->name) + " is given twice");
        before = true;
        if (const std::string wanted = option->take(given.value, zone); !wanted.empty())
            return refuse(std::string(option->name) + " is " + wanted);
    }
    return true;
}

}  // namespace

bool parseDnsZone(const Url& url, DnsZone& zone, std::string& reason) {
    DnsZone parsed;
    if (!parseServer(url.authority, dnsPort, parsed.server, reason))
        return false;
    std::string_view name = url.path;
    if (name.starts_with('/'))
        name.remove_prefix(1);
    if (name.ends_with('.'))
        name.remove_suffix(1);
    if (!isDnsName(name)) {
        reason = "malformed url: it names no zone, as in dns://SERVER/ZONE";
        return false;
    }
    parsed.zone = lowerCase(name);
    if (!takeOptions(url, parsed, reason))
        return false;
    zone = std::move(parsed);
    return true;
}

}  // namespace rdbopen
