//  The back end redis://HOST[:PORT][/DB][?expire=SECONDS]: an rdb server in a Redis server. Tags, their current values
//  and the values they had are keys of its database DB (objects.h); each call is one transaction.
#ifndef RDBAPI_OPEN_REDIS_BACKEND_H
#define RDBAPI_OPEN_REDIS_BACKEND_H

#include "engine/backend.h"
#include "net/url.h"

#include <memory>

namespace rdbopen {

//  The port of a url that names none: 6379 (https://www.iana.org/assignments/service-names-port-numbers).
inline constexpr std::uint16_t redisPort = 6379;

//  The shortest and the longest expiry, in seconds. The service repeats an unchanged value after 600 s, a little later
//  when it has to connect anew first: with a shorter expiry a living host would vanish in between.
inline constexpr std::uint32_t redisMinExpiry = 660;
inline constexpr std::uint32_t redisMaxExpiry = 31536000;

//  Returns errorNone, or errorBadUrl with the reason.
int makeRedisBackend(const Url& url, const Credentials& credentials, std::unique_ptr<Backend>& backend,
                     std::string& reason);

}  // namespace rdbopen

#endif
