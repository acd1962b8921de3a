//  The back end redis: an rdb server in a Redis server. Tags, their current values and their history are keys of its
//  database DB (objects.h). Each call is one round trip; one that writes is a script that the server executes as a
//  whole (scripts.h). So a put whose answer was lost may be repeated: it confirms what it finds.
//
//      redis://HOST[:PORT][/DB][?expire=SECONDS&history=NUMBER]
//      rediss://...                                   the same over TLS, with the options of net/tls_settings.h
//      redis+unix:///PATH[?db=DB&expire=...]          the server's socket on this machine
#ifndef RDBAPI_OPEN_REDIS_BACKEND_H
#define RDBAPI_OPEN_REDIS_BACKEND_H

#include "engine/backend.h"
#include "net/stream.h"
#include "net/url.h"

namespace rdbopen {

//  The default port of redis and rediss: 6379 (https://www.iana.org/assignments/service-names-port-numbers), as in the
//  programs of Redis itself.
inline constexpr std::uint16_t redisPort = 6379;

//  Minimum and maximum expiry in seconds. The service repeats an unchanged value after 600 s, or slightly later after a
//  reconnect. With a shorter expiry, the data of a running host would expire before the repetition.
inline constexpr std::uint32_t redisMinExpiry = 660;
inline constexpr std::uint32_t redisMaxExpiry = 31536000;

//  Makes the back end for a url without the options of TLS. stream: how the server is reached. Fails with errorBadUrl.
BackendResult makeRedisBackend(const Url& url, const Credentials& credentials, std::unique_ptr<Stream> stream);

//  Makes the back end of redis and redis+unix. Fails with errorBadUrl.
BackendResult makePlainRedisBackend(const Url& url, const Credentials& credentials);

}  // namespace rdbopen

#endif
