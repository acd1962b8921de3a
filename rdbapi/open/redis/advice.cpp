#include "redis/advice.h"

#include "redis/place.h"

namespace rdbopen {

void adviseOnRedis(const UrlUse& use, std::vector<Advice>& advice) {
    const Result<std::vector<Server>> servers = parseServers(use.url.authority, redisPort);
    if (!servers.ok() || !use.url.scheme.ends_with("+cluster") || servers->size() > 1)
        return;
    advice.push_back({Setting::url, std::string(use.urlName) +
                                        ": it names one node of the cluster: while that node is down, the service "
                                        "cannot connect after a start; name several, separated by commas"});
}

}  // namespace rdbopen
