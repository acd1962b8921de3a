//  The way in which a back end waits for a descriptor. Closing the handle ends each such wait. Only the functions of
//  the C library that resolve names, such as getaddrinfo(3), wait for sockets in another way; closing the handle does
//  not end their waits.
#ifndef RDBAPI_OPEN_ENGINE_WAITER_H
#define RDBAPI_OPEN_ENGINE_WAITER_H

#include <chrono>

namespace rdbopen {

class Waiter {
public:
    enum class Result { ready, timedOut, closed, callWaits, failed };

    //  Waits until descriptor is ready for one of events (poll(2)) or has an error, monotonicNow() reaches the time
    //  limit, or the handle is closed. Returns timedOut earlier if the caller of a request for a tag, or the retry of
    //  such a request, has timed out. Returns callWaits only during a check (Backend::checksArePreemptible). After
    //  failed, errno is set.
    virtual Result wait(int descriptor, short events, std::chrono::milliseconds until) const noexcept = 0;

    //  Returns whether the handle is closed, the caller of a request for a tag has timed out, or a call interrupts the
    //  check. Every wait would then end at once.
    virtual bool cancelled() const noexcept { return false; }

protected:
    ~Waiter() = default;
};

}  // namespace rdbopen

#endif
