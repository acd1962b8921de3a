#include "redis/advice.h"

#include "redis/place.h"

namespace rdbopen {

void adviseOnRedis(const UrlUse& use, std::vector<Advice>& advice) {
    const bool isCluster = use.url.scheme.ends_with("+cluster");
    const bool hasSentinels = use.url.scheme.ends_with("+sentinel");
    const Result<std::vector<Server>> servers = parseServers(use.url.authority, redisPort);
    if (!servers.ok() || servers->size() > 1 || (!isCluster && !hasSentinels))
        return;
    advice.push_back({Setting::url, std::string(use.urlName) + ": it names one " +
                                        (isCluster ? "node of the cluster: while that node" : "Sentinel: while it") +
                                        " is down, the service cannot connect after a start; name several, separated "
                                        "by commas"});
}

}  // namespace rdbopen
