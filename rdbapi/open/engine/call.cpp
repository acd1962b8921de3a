#include "engine/call.h"

#include "engine/clock.h"

namespace rdbopen {

int WaitingCall::wait() {
    const auto until = monotonicNow() + callLimit;
    std::unique_lock lock(mutex_);
    while (state_ == State::waiting)
        if (!finishedCondition_.waitUntil(lock, until) && state_ == State::waiting) {
            state_ = State::abandoned;
            return errorTimedOut;
        }
    return code_;
}

bool WaitingCall::abandoned() {
    const std::lock_guard lock(mutex_);
    return state_ == State::abandoned;
}

void WaitingCall::finish(int code, bool) {
    const std::lock_guard lock(mutex_);
    if (state_ == State::abandoned)
        return;
    state_ = State::finished;
    code_ = code;
    finishedCondition_.notifyAll();
}

void UpdateCall::finish(int, bool closed) {
    if (!closed)
        callback_(reply_.data(), static_cast<std::int32_t>(reply_.size()), user_);
}

}  // namespace rdbopen
