#include "engine/retry_schedule.h"

#include <algorithm>
#include <utility>

namespace rdbopen {

std::chrono::milliseconds backoffDelay(unsigned failures, std::uint32_t random) noexcept {
    const unsigned doublings = std::min(failures - 1, 6U);  // 2^6 s exceeds the maximum; a large shift would overflow
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

void RetrySchedule::connected(Time now, Time interval, std::uint32_t random) noexcept {
    connectedAt_ = now;
    checkInterval_ = std::min(interval, refreshTime);
    if (checkInterval_.count() == 0)
        return;
    const auto length = static_cast<std::uint32_t>(checkInterval_.count());
    checkAt_ = now + Time(1 + random % length);
    checksPerRefresh_ = static_cast<std::uint32_t>(refreshTime / checkInterval_);
    checksToRefresh_ = 1 + random / length % checksPerRefresh_;
}

bool RetrySchedule::checked(Time now) noexcept {
    const Time late = std::max(now - checkAt_, Time(0)) % checkInterval_;
    checkAt_ = now - late + checkInterval_;
    if (--checksToRefresh_ > 0)
        return false;
    checksToRefresh_ = checksPerRefresh_;
    return true;
}

}  // namespace rdbopen
