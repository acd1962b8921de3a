//  Advice of addrpubd-check on the urls of the back ends redis and rediss.
#ifndef RDBAPI_OPEN_REDIS_ADVICE_H
#define RDBAPI_OPEN_REDIS_ADVICE_H

#include "module/module.h"

namespace rdbopen {

//  Adds a warning if the url of a cluster or of Sentinels names only one server.
void adviseOnRedis(const UrlUse& use, std::vector<Advice>& advice);

}  // namespace rdbopen

#endif
