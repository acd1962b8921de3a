//  The addresses of the servers of a url, or of servers that another server has named. A back end tries them in turn.
//  It skips an address that cannot be reached. It also skips an address if the request returns a Status whose member
//  `failover` is true: another server may serve the request. For example, a read-only replica cannot serve a write.
//
//  The right address is the last one to which the connection succeeded and at which the attempt returned neither
//  errorBackendFailed nor a status with `failover`.
//
//      lookUp:      stores the servers in the given order, and the addresses of each server in the resolver's order
//      tryEach:     tries the right address first, if it is one of the stored addresses, then the others
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

    //  Uses the connection. The parameter is the time at which the next address should be tried. If `failover` of the
    //  returned status is true, the next address is tried at once.
    using Attempt = std::function<Status(std::chrono::milliseconds)>;

    //  Resolves the names of servers. Fails if no server has an address. getaddrinfo(3) has its own time limits, and
    //  closing the handle does not interrupt it. Adds the duration of getaddrinfo(3) to the time limit `until`.
    Status lookUp(const std::vector<Server>& servers, std::chrono::milliseconds& until);

    //  Stores address as the only one. Replaces lookUp if no name must be resolved.
    void use(const ServerAddress& address) { addresses_.assign(1, address); }

    //  Tries the addresses in turn. Each gets an equal share of the remaining time. Returns the first status of attempt
    //  whose member `failover` is false. Without such a status, returns a failure after the last address: the last
    //  status of attempt or, if no address could be reached, the last failure to connect. If there are several
    //  servers, the reason of this failure has one part for each.
    //  If waiter is cancelled, tries no further address, and returns the last status of attempt or, if there is none,
    //  cancelledFailure.
    //  Requires: lookUp has succeeded, or use was called.
    Status tryEach(const Waiter& waiter, std::chrono::milliseconds until, const Connect& connect,
                   const Attempt& attempt);

    //  Like tryEach, for all addresses except the one that was tried last. Call it when a later request at that address
    //  has returned `status` with `failover`. If no other address can be reached, returns `status`. If there are
    //  several servers, the reason of `status` then has one part for each.
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
    ServerAddress right_{};       // the right address (see above); length 0 if there is none
};

}  // namespace rdbopen

#endif
