//  The back end redis stores tags in a Redis server or a Redis Cluster. The keys of the database contain the tags,
//  their current values and their histories (objects.h). Most calls are one round trip. A call that writes sends a
//  script (scripts.h). In a cluster, a put sends one script for each slot. If the answer to a put is lost, the put may
//  be repeated: the repetition confirms the values that the server already has.
//
//  place.h describes the urls. route.h describes how a command reaches its server.
#ifndef RDBAPI_OPEN_REDIS_BACKEND_H
#define RDBAPI_OPEN_REDIS_BACKEND_H

#include "engine/backend.h"
#include "redis/place.h"
#include "redis/route.h"

namespace rdbopen {

//  Makes the back end for url, from which the caller has removed the options of TLS. makeStream makes the streams of
//  its connections. Fails with errorBadUrl.
BackendResult makeRedisBackend(const Url& url, const Credentials& credentials, const MakeStream& makeStream);

//  Makes the back end of the schemes without TLS. Fails with errorBadUrl.
BackendResult makePlainRedisBackend(const Url& url, const Credentials& credentials);

}  // namespace rdbopen

#endif
