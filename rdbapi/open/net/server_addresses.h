//  The addresses of the servers of a url, or of servers that another server has named. A back end tries them in turn.
//  It skips an address that cannot be reached. It also skips a server that cannot serve the request although another
//  one may, for example a read-only replica; the Status of the request then has failover set.
//
//      lookUp:      servers in the given order, the addresses of each in the resolver's order
//      tryEach:     first tries the last address that served an attempt, then the others
//      tryOthers:   tries the addresses in the order of tryEach, except the one that was tried last
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_NET_SERVER_ADDRESSES_H
#define RDBAPI_OPEN_NET_SERVER_ADDRESSES_H

#include "engine/backend.h"
#include "net/stream.h"
#include "net/url.h"

#include <functional>
#include <vector>

namespace rdbopen {

class ServerAddresses {
public:
    //  Connects to an address; times out at the given time.
    using Connect = std::function<Status(const ServerAddress&, std::chrono::milliseconds)>;

    //  Uses the connection. The parameter is the time at which the next address should be tried. If the returned status
    //  has failover set, the next address is tried at once.
    using Attempt = std::function<Status(std::chrono::milliseconds)>;

    //  Resolves the names of servers. Fails if no server has an address. getaddrinfo(3) has its own time limits, and
    //  closing the handle does not interrupt it. The duration of getaddrinfo(3) is added to the time limit, until.
    Status lookUp(const std::vector<Server>& servers, std::chrono::milliseconds& until);

    //  Stores one address instead, which needs no resolver.
    void use(const ServerAddress& address) { addresses_.assign(1, address); }

    //  Tries the addresses in turn; each gets an equal share of the remaining time. Returns the first status of attempt
    //  whose member failover is false. If there is no such status, returns the last status of attempt or, if no server
    //  could be reached, the last failure to connect; if there are several servers, the reason has one part for each.
    //  If waiter is cancelled before an address is tried, returns the last status of attempt or, without one, a failure
    //  of its own.
    //  Requires: lookUp has succeeded, or use was called.
    Status tryEach(const Waiter& waiter, std::chrono::milliseconds until, const Connect& connect,
                   const Attempt& attempt);

    //  Like tryEach, for all addresses except the current one: a later request on its connection has returned status,
    //  which has failover set. Returns status if no other address can be reached, with a reason like that of tryEach.
    Status tryOthers(Status status, const Waiter& waiter, std::chrono::milliseconds until, const Connect& connect,
                     const Attempt& attempt);

    //  Returns whether there is more than one address.
    bool hasOthers() const noexcept { return addresses_.size() > 1; }

private:
    struct Walk {
        const Waiter& waiter;
        std::chrono::milliseconds until;
        const Connect& connect;
        const Attempt& attempt;
    };
    struct Fault {
        Server server;
        std::string reason;
        bool answered;
    };
    Status resolve(const Server& server, std::chrono::milliseconds& until);
    Status walk(const Walk& how, std::size_t skipped, Status answer);
    static void note(std::vector<Fault>& faults, Fault fault);
    static Status withFaults(Status status, const std::vector<Fault>& faults);

    std::vector<ServerAddress> addresses_;
    std::vector<Fault> unknown_;  // servers without an address
    std::size_t current_ = 0;     // index of the address that was tried last
    ServerAddress right_{};       // the last address that served an attempt; length 0 if none
};

}  // namespace rdbopen

#endif
