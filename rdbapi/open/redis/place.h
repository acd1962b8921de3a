//  The parts of a url of the back end redis, and their parser.
//
//      redis://SERVERS[/DB][?expire=SECONDS&history=NUMBER]    SERVERS: HOST[:PORT][,HOST[:PORT]...]
//      redis+unix:///PATH[?db=DB&expire=...]                   the server's socket on this machine
//      redis+cluster://SERVERS[?expire=...]                    nodes of a cluster, which has only database 0
//      redis+sentinel://SERVERS/MASTER[/DB][?expire=...]       Sentinels, and the name of the master that they watch
//      rediss://... rediss+cluster://... rediss+sentinel://... the same over TLS; further options: net/tls_settings.h
//
//  Threads: any thread may call these functions.
#ifndef RDBAPI_OPEN_REDIS_PLACE_H
#define RDBAPI_OPEN_REDIS_PLACE_H

#include "net/url.h"
#include "redis/objects.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace rdbopen {

//  The default port of all servers except Sentinels: 6379
//  (https://www.iana.org/assignments/service-names-port-numbers), as in the programs of Redis itself.
inline constexpr std::uint16_t redisPort = 6379;

//  The default port of Sentinels, as in the documentation of Redis.
inline constexpr std::uint16_t sentinelPort = 26379;

//  Minimum and maximum expiry in seconds. An unchanged value is written again after at most 540 s (refreshTime in
//  engine/retry_schedule.h). With the minimum, the data of a running host survives if this write is less than 120 s
//  late.
inline constexpr std::uint32_t redisMinExpiry = 660;
inline constexpr std::uint32_t redisMaxExpiry = 31536000;

struct RedisPlace {
    std::string scheme;
    std::vector<Server> servers;  // in the order of the url; empty if there is a socket
    std::string socket;           // path of the server's Unix socket, or empty
    std::string master;           // name by which Sentinels know the master, or empty
    std::uint32_t database = 0;
    RedisLimits limits;

    bool isCluster() const noexcept { return scheme.ends_with("+cluster"); }
    bool hasSentinels() const noexcept { return scheme.ends_with("+sentinel"); }

    //  Returns whether the connection is encrypted.
    bool usesTls() const noexcept { return scheme.starts_with("rediss"); }
};

//  Parses url, from which the caller has removed the options of TLS. Fails with errorBadUrl.
Result<RedisPlace> parseRedisPlace(const Url& url);

//  Returns the url of place, for syslog. Of the options it contains only db.
std::string redisPlaceText(const RedisPlace& place);

//  Converts a host and a port that a server has reported. A server may report anything: returns nothing if a url could
//  not contain this host and port.
std::optional<Server> serverFrom(std::string_view host, std::string_view port);

}  // namespace rdbopen

#endif
