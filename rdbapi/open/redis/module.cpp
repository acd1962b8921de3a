//  The module of the back end redis.
#include "module/file_advice.h"
#include "module/guarded_backend.h"
#include "redis/advice.h"
#include "redis/backend.h"

namespace {

using rdbopen::Url;
using rdbopen::UrlUse;

constexpr std::string_view schemes[] = {"redis", "redis+unix", "redis+cluster", "redis+sentinel"};

//  A user who can replace the socket of redis+unix gets the password.
void adviseOnSocket(const UrlUse& use, std::vector<rdbopen::Advice>& advice) {
    if (use.url.scheme != "redis+unix")
        return;
    const Url place{use.url.scheme, use.url.authority, use.url.path, {}};
    rdbopen::adviseOnFile({place, use.credentials, use.urlName, use.passwordName, use.hostname, use.httpsPorts},
                          advice);
}

void adviseOnPlainRedis(const UrlUse& use, std::vector<rdbopen::Advice>& advice) {
    adviseOnSocket(use, advice);
    rdbopen::adviseOnRedis(use, advice);
}

}  // namespace

RDBAPI_MODULE(redis);
constinit const rdbopen::Module rdbapix64_redis =
    rdbopen::describeModule<rdbopen::makePlainRedisBackend, adviseOnPlainRedis>(schemes);
