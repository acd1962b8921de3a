#include "redis/place.h"

#include "net/stream.h"
#include "net/tls_settings.h"

#include <algorithm>

namespace rdbopen {

namespace {

Status parseDatabase(std::string_view digits, RedisPlace& place) {
    constexpr std::uint32_t maxDatabase = 2147483647;
    const auto database = parseNumber(digits, maxDatabase);
    if (!database)
        return malformedUrl(place.socket.empty() ? "the path is not the number of a database"
                                                 : "db is not the number of a database");
    place.database = *database;
    return {};
}

Status parseExpiry(const std::string& text, std::uint32_t& expire) {
    expire = parseNumber(text, redisMaxExpiry).value_or(0);
    if (expire >= redisMinExpiry)
        return {};
    return malformedUrl("expire is not a number of seconds from " + std::to_string(redisMinExpiry) +
                        " (an unchanged value is repeated after 540) to " + std::to_string(redisMaxExpiry));
}

std::string optionWords(const RedisPlace& place) {
    if (!place.socket.empty())
        return "it has an option other than db, expire and history";
    if (place.usesTls())
        return "it has an option other than expire, history, " + std::string(tlsOptionWords);
    return "it has an option other than expire and history";
}

Status parseOption(const UrlOption& option, RedisPlace& place) {
    if (option.name == "expire")
        return parseExpiry(option.value, place.limits.expire);
    if (option.name == "history")
        return parseHistory(option.value, place.limits.history);
    if (option.name == "db" && !place.socket.empty())
        return parseDatabase(option.value, place);
    return malformedUrl(optionWords(place));
}

//  Fails for an option that is unknown or given twice.
Status parseOptions(const Url& url, RedisPlace& place) {
    std::vector<std::string_view> seen;
    for (const UrlOption& option : url.options) {
        if (std::find(seen.begin(), seen.end(), option.name) != seen.end())
            return malformedUrl(option.name + " is given twice");
        seen.push_back(option.name);
        if (Status malformed = parseOption(option, place); !malformed.ok())
            return malformed;
    }
    return {};
}

Status parseSocket(const Url& url, RedisPlace& place) {
    const Result<std::string> path = filePathOf({url.scheme, url.authority, url.path, {}});
    if (!path.ok())
        return path.status();
    if (!socketAddress(*path))
        return malformedUrl("the path of a socket has at most 107 bytes");
    place.socket = *path;
    return {};
}

//  Parses a path of the form /MASTER[/DB]. Requires: path begins with "/".
Status parseMaster(std::string_view path, RedisPlace& place) {
    path.remove_prefix(1);
    const std::size_t end = std::min(path.find('/'), path.size());
    place.master = path.substr(0, end);
    if (place.master.empty())
        return malformedUrl("the path does not begin with the name of a master");
    return path.size() - end < 2 ? Status{} : parseDatabase(path.substr(end + 1), place);
}

Status parsePath(std::string_view path, RedisPlace& place) {
    if (place.hasSentinels())
        return parseMaster(path.empty() ? "/" : path, place);
    if (Status failed = path.size() < 2 ? Status{} : parseDatabase(path.substr(1), place); !failed.ok())
        return failed;
    return place.isCluster() && place.database != 0 ? malformedUrl("a cluster has only database 0") : Status{};
}

Status parseServersAndPath(const Url& url, RedisPlace& place) {
    Result<std::vector<Server>> servers = parseServers(url.authority, place.hasSentinels() ? sentinelPort : redisPort);
    if (!servers.ok())
        return servers.status();
    place.servers = std::move(*servers);
    return parsePath(url.path, place);
}

}  // namespace

Result<RedisPlace> parseRedisPlace(const Url& url) {
    RedisPlace place;
    place.scheme = url.scheme;
    const auto parse = url.scheme == "redis+unix" ? parseSocket : parseServersAndPath;
    Status failed = parse(url, place);
    if (failed.ok())
        failed = parseOptions(url, place);
    if (!failed.ok())
        return failed;
    return place;
}

std::string redisPlaceText(const RedisPlace& place) {
    const std::string database = std::to_string(place.database);
    if (!place.socket.empty())
        return place.scheme + "://" + place.socket + "?db=" + database;
    const std::string text = place.scheme + "://" + serversText(place.servers);
    if (place.hasSentinels())
        return text + "/" + place.master + "/" + database;
    return place.isCluster() ? text : text + "/" + database;
}

std::optional<Server> serverFrom(std::string_view host, std::string_view port) {
    constexpr std::uint16_t noPort = 0;  // never used, because text always contains a port
    std::string text = host.find(':') == std::string_view::npos ? std::string(host) : "[" + std::string(host) + "]";
    Result<std::vector<Server>> servers = parseServers(text.append(":").append(port), noPort);
    return servers.ok() && servers->size() == 1 ? std::optional(std::move(servers->front())) : std::nullopt;
}

}  // namespace rdbopen
