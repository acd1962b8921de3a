#include "engine/retry_schedule.h"

#include <algorithm>
#include <utility>

namespace rdbopen {

std::chrono::milliseconds backoffDelay(unsigned failures, std::uint32_t random) noexcept {
    const unsigned doublings = std::min(failures - 1, 6U);  // 2^6 s exceeds the maximum; a larger shift would overflow
    const auto base = std::min(backoffMin * (1 << doublings), backoffMaxBase);
    const auto share = random % static_cast<std::uint32_t>(base.count() / 4 + 1);
    return base + std::chrono::milliseconds(share);
}

//  A short connection does not reset the count of losses. Otherwise, if a server accepts and drops each client at once,
//  every client would reconnect once a second.
RetrySchedule::Time RetrySchedule::lost(Time now) {
    const bool steady = connectedAt_ && now - *connectedAt_ >= steadyTime;
    losses_ = steady ? 1 : losses_ + 1;
    connectedAt_.reset();
    const Time pause = backoff(losses_);
    return std::exchange(away_, false) ? std::max(pause, awayTime + backoff(1)) : pause;
}

}  // namespace rdbopen
