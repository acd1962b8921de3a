#include "engine/retry_schedule.h"

#include <algorithm>
#include <utility>

namespace rdbopen {

std::chrono::milliseconds backoffDelay(unsigned failures, std::uint32_t random) noexcept {
    const unsigned doublings =
        std::min(failures - 1, 6U);  // 2^6 s is more than the maximum, and a longer shift overflows
    const auto base = std::min(backoffMin * (1 << doublings), backoffMaxBase);
    const auto share = random % static_cast<std::uint32_t>(base.count() / 4 + 1);
    return base + std::chrono::milliseconds(share);
}

//  A connection that opens and fails at once is no success: without steadyTime, a server that accepts and drops every
//  client would be opened once a second by each of them.
RetrySchedule::Time RetrySchedule::lost(Time now) {
    const bool steady = connectedAt_ && now - *connectedAt_ >= steadyTime;
    losses_ = steady ? 1 : losses_ + 1;
    connectedAt_.reset();
    const Time pause = backoff(losses_);
    return std::exchange(away_, false) ? std::max(pause, awayTime + backoff(1)) : pause;
}

}  // namespace rdbopen
