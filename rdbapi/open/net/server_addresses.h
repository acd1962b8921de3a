//  The addresses of a server's name. A back end tries them in turn until it finds the right server: it skips an address
//  that cannot be reached, and one whose answer shows that it is the wrong server.
//
//      lookUp:      | the last address that was the right server | the others, in the resolver's order |
//      tryEach:     all of them, from the first
//      tryOthers:   all except the one that was tried last
//
//  Threads: one thread at a time.
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
    //  Connects to an address, until the given time.
    using Connect = std::function<Status(const ServerAddress&, std::chrono::milliseconds)>;

    //  Uses the connection; the next address should be tried at the given time. A status with failover ends the use of
    //  this address.
    using Attempt = std::function<Status(std::chrono::milliseconds)>;

    //  Resolves the name of server. getaddrinfo(3) has its own time limits and does not end with the handle: its
    //  duration is added to until.
    Status lookUp(const Server& server, std::chrono::milliseconds& until);

    //  Each address has an equal share of the remaining time. Return the first status without failover, else the last
    //  answer of a server, else why no server could be reached. Requires: lookUp has succeeded.
    Status tryEach(const Waiter& waiter, std::chrono::milliseconds until, const Connect& connect,
                   const Attempt& attempt);

    //  Continues after an attempt with the connection of tryEach or tryOthers, whose status has failover set and counts
    //  as an answer.
    Status tryOthers(Status status, const Waiter& waiter, std::chrono::milliseconds until, const Connect& connect,
                     const Attempt& attempt);

    //  Returns whether there is another address to try.
    bool hasOthers() const noexcept { return addresses_.size() > 1; }

private:
    struct Walk {
        const Waiter& waiter;
        std::chrono::milliseconds until;
        const Connect& connect;
        const Attempt& attempt;
    };
    Status walk(const Walk& how, std::size_t skipped, Status answer);

    std::vector<ServerAddress> addresses_;
    std::size_t current_ = 0;  // index of the address that was tried last
    ServerAddress right_{};    // the last right one; length 0 if none
};

}  // namespace rdbopen

#endif
