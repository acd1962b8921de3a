#include "engine/call.h"

#include "engine/clock.h"

#include <algorithm>

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

bool TagGetCall::takeConfirmed(const DesiredState& desired, Backend&, DesiredState::Time since) {
    const RdbTag* const known = desired.confirmedTag(tag.name, since);
    if (known == nullptr)
        return false;
    tag.tagclass = known->tagclass;
    tag.valuetype = known->valuetype;
    tag.importflag = known->importflag;
    return true;
}

bool PutCall::takeConfirmed(const DesiredState& desired, Backend&, DesiredState::Time since) {
    return std::all_of(records.begin(), records.end(),
                       [&](const RdbSnapshot& record) { return desired.isConfirmed(record, since); });
}

bool UpdateCall::takeConfirmed(const DesiredState& desired, Backend& backend, DesiredState::Time since) {
    const std::string* const done = desired.confirmedRequest(since);
    std::optional<std::string> reply = done == nullptr ? std::nullopt : backend.updates()->repetition(text_, *done);
    if (reply)
        reply_ = std::move(*reply);
    return reply.has_value();
}

void UpdateCall::finish(int, bool closed) {
    if (!closed)
        callback_(reply_.data(), static_cast<std::int32_t>(reply_.size()), user_);
}

}  // namespace rdbopen
