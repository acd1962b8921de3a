#include "backoff.h"

#include <algorithm>

namespace rdbopen {

std::chrono::milliseconds backoffDelay(unsigned failures, std::uint32_t random) noexcept {
    const unsigned doublings = std::min(failures - 1, 6U);  // 2^6 s is past the most already
    const auto highest = std::min(backoffLeast * (1 << doublings), backoffMost);
    const auto lowest = std::max(highest * 3 / 4, backoffLeast);
    const auto share = random % static_cast<std::uint32_t>((highest - lowest).count() + 1);
    return lowest + std::chrono::milliseconds(share);
}

}  // namespace rdbopen
