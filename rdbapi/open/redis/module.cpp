//  The module of the back end redis.
#include "module/guarded_backend.h"
#include "redis/backend.h"

namespace {

constexpr std::string_view schemes[] = {"redis"};

}  // namespace

RDBAPI_MODULE(redis);
constinit const rdbopen::Module rdbapix64_redis = rdbopen::describeModule<rdbopen::makeRedisBackend>(schemes);
