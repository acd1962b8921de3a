//  The back end redis://HOST[:PORT][/DB][?expire=SECONDS&history=NUMBER]: an rdb server in a Redis server. Tags, their
//  current values and their history are keys of its database DB (objects.h). Each call is one round trip; one that
//  writes is a script that the server executes as a whole (scripts.h). So a put whose answer was lost may be repeated:
//  it confirms what it finds.
#ifndef RDBAPI_OPEN_REDIS_BACKEND_H
#define RDBAPI_OPEN_REDIS_BACKEND_H

#include "engine/backend.h"
#include "net/url.h"

namespace rdbopen {

//  The default port: 6379 (https://www.iana.org/assignments/service-names-port-numbers).
inline constexpr std::uint16_t redisPort = 6379;

//  Minimum and maximum expiry in seconds. The service repeats an unchanged value after 600 s, or slightly later after a
//  reconnect. With a shorter expiry, the data of a running host would expire before the repetition.
inline constexpr std::uint32_t redisMinExpiry = 660;
inline constexpr std::uint32_t redisMaxExpiry = 31536000;

//  Makes the back end. Fails with errorBadUrl.
BackendResult makeRedisBackend(const Url& url, const Credentials& credentials);

}  // namespace rdbopen

#endif
