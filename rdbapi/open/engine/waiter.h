//  How a back end waits for a descriptor: up to a given time, and never longer than its handle is open, so that a
//  handle can be closed at any moment of an exchange.
#ifndef RDBAPI_OPEN_ENGINE_WAITER_H
#define RDBAPI_OPEN_ENGINE_WAITER_H

#include <chrono>

namespace rdbopen {

class Waiter {
public:
    enum class Result { ready, timedOut, closed, callWaits, failed };

    //  Waits until descriptor is ready for one of events (poll(2)) or is broken, until monotonicNow() reaches the time
    //  until, or until the handle is closed. Returns timedOut before that time if the caller has given up.
    //  callWaits: only during a check, see Backend::checksArePreemptible. failed: errno says why.
    virtual Result wait(int descriptor, short events, std::chrono::milliseconds until) const noexcept = 0;

    //  True when every wait ends at once, as closed, timedOut or callWaits.
    virtual bool cancelled() const noexcept { return false; }

protected:
    ~Waiter() = default;
};

}  // namespace rdbopen

#endif
