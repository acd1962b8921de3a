//  The addresses that the name of a server stands for. A back end tries them in turn until it has the right server: one
//  that cannot be reached, and one whose answer says that it is the wrong one, leave the turn to the next.
//
//      lookUp:      | the one that was right last | the others, in the resolver's order |
//      tryEach:     all of them, from the front
//      tryOthers:   all but the one that was tried last
//
//  Threads: one at a time.
#ifndef RDBAPI_OPEN_NET_SERVER_ADDRESSES_H
#define RDBAPI_OPEN_NET_SERVER_ADDRESSES_H

#include "engine/backend.h"
#include "net/tcp_stream.h"
#include "net/url.h"

#include <functional>
#include <vector>

namespace rdbopen {

class ServerAddresses {
public:
    //  Connects to an address, up to the given time.
    using Connect = std::function<Status(const ServerAddress&, std::chrono::milliseconds)>;

    //  Uses the connection; the given time is when the next address should have its turn. A status with failover ends
    //  this address's turn.
    using Attempt = std::function<Status(std::chrono::milliseconds)>;

    //  Resolves the name of server. getaddrinfo(3) keeps limits of its own and does not end with the handle: until is
    //  moved on by the time that it took.
    Status lookUp(const Server& server, std::chrono::milliseconds& until);

    //  Each address has an equal share of the time that is left. Return the first status without failover. Without
    //  one, the last that a server answered, or else why none could be reached.
    //  Requires: lookUp has succeeded.
    Status tryEach(const Waiter& waiter, std::chrono::milliseconds until, const Connect& connect,
                   const Attempt& attempt);

    //  Goes on after an attempt at the connection that tryEach or tryOthers has left: its status, which has failover
    //  set, counts as answered.
    Status tryOthers(Status status, const Waiter& waiter, std::chrono::milliseconds until, const Connect& connect,
                     const Attempt& attempt);

    //  Says whether tryOthers has an address to try.
    bool hasOthers() const noexcept { return addresses_.size() > 1; }

private:
    struct Walk {
        const Waiter& waiter;
        std::chrono::milliseconds until;
        const Connect& connect;
        const Attempt& attempt;
    };
    Status walk(const Walk& how, std::size_t skipped, Status told);

    std::vector<ServerAddress> addresses_;
    std::size_t current_ = 0;  // index of the one that was tried last
    ServerAddress right_{};    // its length is 0 while none was
};

}  // namespace rdbopen

#endif
