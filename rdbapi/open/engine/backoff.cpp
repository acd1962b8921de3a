#include "engine/backoff.h"

#include <algorithm>

namespace rdbopen {

std::chrono::milliseconds backoffDelay(unsigned failures, std::uint32_t random) noexcept {
    const unsigned doublings = std::min(failures - 1, 6U);  // 2^6 s is past the most already
    const auto base = std::min(backoffMin * (1 << doublings), backoffMaxBase);
    const auto share = random % static_cast<std::uint32_t>(base.count() / 4 + 1);
    return base + std::chrono::milliseconds(share);
}

}  // namespace rdbopen
