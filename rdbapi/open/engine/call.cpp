#include "engine/call.h"

#include "engine/clock.h"

namespace rdbopen {

int WaitingCall::wait() {
    const auto until = monotonicNow() + callLimit;
    std::unique_lock lock(mutex_);
    while (state_ == State::waiting)
        if (!completed_.waitUntil(lock, until) && state_ == State::waiting) {
            state_ = State::abandoned;
            return errorTimedOut;
        }
    return code_;
}

bool WaitingCall::abandoned() {
    const std::lock_guard lock(mutex_);
    return state_ == State::abandoned;
}

void WaitingCall::complete(int code, bool) {
    const std::lock_guard lock(mutex_);
    if (state_ == State::abandoned)
        return;
    state_ = State::complete;
    code_ = code;
    completed_.notifyAll();
}

void MessageCall::complete(int, bool closed) {
    if (!closed)
        callback_(reply_.data(), static_cast<std::int32_t>(reply_.size()), user_);
}

}  // namespace rdbopen
