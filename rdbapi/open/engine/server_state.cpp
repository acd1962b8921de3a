#include "engine/server_state.h"

#include "engine/state_text.h"

#include <algorithm>
#include <utility>

namespace rdbopen {

namespace {

constexpr const char* phaseNames[] = {"opening", "connected", "waiting"};

}  // namespace

void ServerState::describe(std::string kind, std::string label) {
    kind_ = std::move(kind);
    label_ = std::move(label);
    changed_ = true;
}

void ServerState::connected(Moment now) {
    phase_ = Phase::connected;
    connectedAt_ = now;
    ++connections_;
    changed_ = true;
}

void ServerState::lost(Moment now, const Status& status) {
    phase_ = Phase::waiting;
    connectedAt_.reset();
    ++losses_;
    fail(now, status);
}

void ServerState::fail(Moment now, const Status& status) {
    failing_ = true;
    changed_ = true;
    failure_ = Failure{now, status.code, status.reason};
}

//  A reader compares the moments of the last success and failure, so a success gets a later moment than the failure.
void ServerState::succeed(Moment now) {
    if (failure_ && failure_->time.boot >= now.boot)
        now = {failure_->time.wall + 1, failure_->time.boot + 1};
    success_ = now;
    changed_ = changed_ || std::exchange(failing_, false);
}

//  A call whose caller timed out before it was served, and a missing tag, are failures only while data is pending.
void ServerState::exchanged(Cause cause, Moment now, const Status& status, const DesiredState& data) {
    if (status.code == errorPreempted)
        return;
    rejected_ = status.code == errorBadRequest || (rejected_ && !(status.ok() && cause == Cause::call));
    if (status.code == errorServerRefused)
        ++refusals_;
    if (status.ok() && !data.pending()) {
        if (!data.empty() && !rejected_)
            succeed(now);
    } else if (status.code == errorServerRefused || status.code == errorBadRequest ||
               (!status.ok() && data.pending())) {
        fail(now, status);
    }
    updatePublished(now, data);
}

void ServerState::retried() noexcept {
    ++retries_;
    changed_ = true;
}

//  A pending value is not published yet: published_ keeps the last value until the new one is no longer pending.
void ServerState::updatePublished(Moment now, const DesiredState& data) {
    data.visit([&](const DesiredState::Item& item) {
        const auto same = [&](const Published& known) { return known.name == item.name; };
        const auto known = std::find_if(published_.begin(), published_.end(), same);
        if (item.pending) {
            changed_ = true;
            if (known != published_.end())
                known->held = false;
        } else if (known == published_.end()) {
            publish(now, item);
        } else if (!known->held || known->value != item.value) {
            *known = {std::string(item.name), std::string(item.value), now, true};
            changed_ = true;
        }
    });
}

void ServerState::publish(Moment now, const DesiredState::Item& item) {
    if (published_.size() == maxStateItems)
        return;
    published_.push_back({std::string(item.name), std::string(item.value), now, true});
    changed_ = true;
}

std::string ServerState::stateText(const DesiredState& data, std::optional<Next> next) {
    StateText text;
    text.line("server").word(kind_).line("label").text(label_).line("phase").word(phaseNames[static_cast<int>(phase_)]);
    if (connectedAt_)
        text.line("connected").moment(*connectedAt_);
    if (success_)
        text.line("success").moment(*success_);
    if (failure_)
        text.line("failure")
            .moment(failure_->time)
            .number(static_cast<std::uint64_t>(failure_->code))
            .text(failure_->reason);
    text.line("connections").number(connections_).line("losses").number(losses_);
    text.line("retries").number(retries_).line("refusals").number(refusals_);
    std::size_t pending = 0;
    data.visit([&](const DesiredState::Item& item) {
        if (item.pending && ++pending <= maxStateItems)
            text.line("pending").word(item.name).text(item.value);
    });
    if (data.tagPending())
        text.line("pending-tag");
    for (const Published& item : published_)
        text.line("published").moment(item.since).word(item.name).text(item.value);
    if (next)
        text.line("next").word(next->action).moment(next->due);
    changed_ = false;
    return std::move(text).take();
}

}  // namespace rdbopen
