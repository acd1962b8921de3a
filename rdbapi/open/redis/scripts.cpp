#include "redis/scripts.h"

namespace rdbopen {

#include "redis_scripts.inc"

}  // namespace rdbopen
