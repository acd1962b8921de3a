#include "dns/zone_url.h"

#include "dns/pointers.h"
#include "dns/tsig.h"
#include "net/tls_settings.h"

#include <algorithm>

namespace rdbopen {

namespace {

constexpr std::uint16_t dnsPort = 53;
constexpr std::uint16_t dnsTlsPort = 853;
constexpr std::string_view tlsScheme = "dns+tls";
constexpr std::uint32_t maxTtl = 2147483647;
constexpr std::uint32_t maxCheckInterval = 86400;  // s

//  Each of the following functions stores the value of one option, or fails if the value is not valid.
Status takeTtl(const std::string& value, DnsZone& zone) {
    const auto seconds = parseNumber(value, maxTtl);
    if (!seconds)
        return malformedUrl("ttl is not a number of seconds from 0 to 2147483647");
    zone.ttl = *seconds;
    return {};
}

Status takeAlgorithm(const std::string& value, DnsZone& zone) {
    if (!isTsigAlgorithm(value))
        return malformedUrl("algorithm is not hmac-sha1, hmac-sha256, hmac-sha384 or hmac-sha512");
    zone.algorithm = value;
    return {};
}

Status takeOnly(const std::string& value, DnsZone& zone) {
    return zone.filter.takeOnly(value);
}

Status takeSkip(const std::string& value, DnsZone& zone) {
    return zone.filter.takeSkip(value);
}

Status takeCheck(const std::string& value, DnsZone& zone) {
    const auto seconds = parseNumber(value, maxCheckInterval);
    if (!seconds)
        return malformedUrl("check is not a number of seconds from 0 to 86400");
    zone.check = std::chrono::seconds(*seconds);
    return {};
}

Status takePtr(const std::string& value, DnsZone& zone) {
    std::string_view rest = value;
    for (bool more = true; more;) {
        const std::size_t end = std::min(rest.find(','), rest.size());
        std::string name = lowerCase(rest.substr(0, end));
        if (name.ends_with('.'))
            name.pop_back();
        if (!isReverseZone(name))
            return malformedUrl("ptr is not a list of zones such as 8.b.d.0.1.0.0.2.ip6.arpa");
        zone.reverseZones.push_back(std::move(name));
        more = end < rest.size();
        rest.remove_prefix(more ? end + 1 : end);
    }
    return {};
}

struct Option {
    std::string_view name;
    Status (*take)(const std::string& value, DnsZone& zone);
};

constexpr Option options[] = {
    {"ttl", takeTtl},   {"algorithm", takeAlgorithm}, {"only", takeOnly},
    {"skip", takeSkip}, {"check", takeCheck},         {"ptr", takePtr},
};

std::string optionWords(std::string_view scheme) {
    if (scheme == tlsScheme)
        return "it has an option other than ttl, algorithm, only, skip, check, ptr, " + std::string(tlsOptionWords);
    return "it has an option other than ttl, algorithm, only, skip, check and ptr";
}

//  A reason never contains the url, because a url may contain a misplaced secret.
Status takeOptions(const Url& url, DnsZone& zone) {
    bool seen[std::size(options)] = {};
    for (const UrlOption& given : url.options) {
        const auto* option = std::find_if(std::begin(options), std::end(options),
                                          [&given](const Option& known) { return known.name == given.name; });
        if (option == std::end(options))
            return malformedUrl(optionWords(url.scheme));
        bool& before = seen[option - std::begin(options)];
        if (before)
            return malformedUrl("the option " + std::string(option->name) + " is given twice");
        before = true;
        if (Status failed = option->take(given.value, zone); !failed.ok())
            return failed;
    }
    return {};
}

}  // namespace

bool DnsZone::encrypted() const {
    return scheme == tlsScheme;
}

Result<DnsZone> parseDnsZone(const Url& url) {
    const std::uint16_t port = url.scheme == tlsScheme ? dnsTlsPort : dnsPort;
    Result<std::vector<Server>> servers =
        url.authority.empty() ? std::vector<Server>() : parseServers(url.authority, port);
    if (!servers.ok())
        return servers.status();
    std::string_view name = url.path;
    if (name.starts_with('/'))
        name.remove_prefix(1);
    if (name.ends_with('.'))
        name.remove_suffix(1);
    if (!isDnsName(name))
        return malformedUrl("it names no zone, as in dns://SERVER/ZONE");
    DnsZone zone;
    zone.scheme = url.scheme;
    zone.servers = std::move(*servers);
    zone.port = port;
    zone.zone = lowerCase(name);
    if (Status failed = takeOptions(url, zone); !failed.ok())
        return failed;
    return zone;
}

}  // namespace rdbopen
