//  Advice of addrpubd-check on the url of a back end redis.
#ifndef RDBAPI_OPEN_REDIS_ADVICE_H
#define RDBAPI_OPEN_REDIS_ADVICE_H

#include "module/module.h"

namespace rdbopen {

//  Adds a warning for a cluster or Sentinels of which the url names a single one.
void adviseOnRedis(const UrlUse& use, std::vector<Advice>& advice);

}  // namespace rdbopen

#endif
