//  What one connection does, for the state file: its last success and failure, what is pending and published, and the
//  next attempt. stateText writes it as the lines of one server; docs/user/state.md describes them.
//
//      server rdb                               kind: "rdb", "dns", or "any" if the back end serves both
//      label redis://db.example.org:6379/0      as in syslog lines, without user and password
//      phase connected                          opening, connected or waiting
//      success 1764000000000 5000000            moments: ms since 1970 UTC, ms since boot
//      published 1764000000000 5000000 host1.example.org 2001:db8::1
//      next check 1764000060000 5060000
//
//  This code reads no clock and no file.
//
//  Threads: one thread at a time per object.
#ifndef RDBAPI_OPEN_ENGINE_SERVER_STATE_H
#define RDBAPI_OPEN_ENGINE_SERVER_STATE_H

#include "engine/clock.h"
#include "engine/desired_state.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rdbopen {

//  Maximum number of published items, and of pending items, that are written.
inline constexpr std::size_t maxStateItems = 8;

class ServerState {
public:
    enum class Phase { opening, connected, waiting };

    //  The next action of the worker and its time.
    struct Next {
        const char* action;  // "open", "retry" or "check"
        Moment due;
    };

    //  kind, label: see above.
    void describe(std::string kind, std::string label);

    //  The back end is open and calls are accepted.
    void connected(Moment now);

    //  The connection has ended or could not be opened.
    void lost(Moment now, const Status& status);

    //  Who has caused an exchange: a call of the handle's user, or the worker with a check, retry or refresh.
    enum class Cause { call, worker };

    //  An exchange with the server has ended with status, or a call was not served because its caller had timed out.
    //  data: the desired state after the exchange or call. A success is recorded only if the desired state has a value
    //  or request and nothing is pending. After errorBadRequest, no success is recorded until a call succeeds, because
    //  the desired state lacks the rejected data. An interrupted check is ignored. Refusals and errorBadRequest count
    //  as failures; other errors, such as a missing tag, count as failures only while data is pending.
    void exchanged(Cause cause, Moment now, const Status& status, const DesiredState& data);

    //  A call succeeded without an exchange, because it repeated confirmed data. This success is not recorded, but it
    //  ends the effect of an earlier errorBadRequest: later successes are recorded again.
    void repeated() noexcept { rejected_ = false; }

    //  A retry of pending data begins.
    void retried() noexcept;

    //  Returns whether anything but the time of the last success and the next action has changed since the last call of
    //  stateText.
    bool changed() const noexcept { return changed_; }

    //  Returns the lines of this server. next: empty if nothing is due.
    std::string stateText(const DesiredState& data, std::optional<Next> next);

private:
    struct Failure {
        Moment time;
        int code;
        std::string reason;
    };
    struct Published {
        std::string name;  // empty for an update request
        std::string value;
        Moment since;  // end of the exchange after which the value was no longer pending (desired_state.h)
        bool held;     // the value is not pending now
    };

    void succeed(Moment now);
    void fail(Moment now, const Status& status);
    void updatePublished(Moment now, const DesiredState& data);
    void publish(Moment now, const DesiredState::Item& item);

    std::string kind_;
    std::string label_;
    Phase phase_ = Phase::opening;
    std::optional<Moment> connectedAt_;
    std::optional<Moment> success_;
    std::optional<Failure> failure_;
    std::vector<Published> published_;
    //  Counts since the handle was created.
    std::uint64_t connections_ = 0;
    std::uint64_t losses_ = 0;    // failed opens and ended connections
    std::uint64_t retries_ = 0;   // retries of pending data; neither refreshes nor requests for tags before event 60001
    std::uint64_t refusals_ = 0;  // refused calls, retries, refreshes and checks; not requests for tags before 60001
    bool failing_ = false;        // a failure was recorded, and no success after it
    bool rejected_ = false;       // a request ended with errorBadRequest, and no call has succeeded since
    bool changed_ = true;
};

}  // namespace rdbopen

#endif
