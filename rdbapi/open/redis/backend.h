//  The back end redis: an rdb server in a Redis server or a Redis Cluster. Tags, their current values and their history
//  are keys of its database (objects.h). Most calls are one round trip. A call that writes is a script that the server
//  executes as a whole (scripts.h), or one script for each slot of a cluster. So a put whose answer was lost may be
//  repeated: it confirms the values that the server has.
//
//  place.h describes the urls, route.h how a command reaches its server.
#ifndef RDBAPI_OPEN_REDIS_BACKEND_H
#define RDBAPI_OPEN_REDIS_BACKEND_H

#include "engine/backend.h"
#include "redis/place.h"
#include "redis/route.h"

namespace rdbopen {

//  Makes the back end for a url without the options of TLS. makeStream: makes the stream of each connection. Fails with
//  errorBadUrl.
BackendResult makeRedisBackend(const Url& url, const Credentials& credentials, const MakeStream& makeStream);

//  Makes the back end of the schemes without TLS. Fails with errorBadUrl.
BackendResult makePlainRedisBackend(const Url& url, const Credentials& credentials);

}  // namespace rdbopen

#endif
