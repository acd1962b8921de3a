//  What a back end is to the worker that drives it: something that is opened, serves one request at a time, and is
//  closed and opened again when it fails.
//
//      closed --open() ok--> open --any request returns errorBackendFailed--> close() --back-off--> open() ...
//                             |
//                             +--a request returns errorServerRefused--> stays open; the request is made again later
//
//  The worker remembers what the user of the handle wants the server to hold and makes the request again until it
//  succeeds. So every request may come more than once. Of a failed request a back end keeps only what lets it see later that
//  the request was carried out after all.
//
//  Threads: open, close, the requests and the checks are called on the worker's thread only; serves() on any thread.
#ifndef RDBAPI_OPEN_ENGINE_BACKEND_H
#define RDBAPI_OPEN_ENGINE_BACKEND_H

#include "engine/status.h"
#include "engine/waiter.h"
#include "rdbapi.h"

#include <span>
#include <string>
#include <string_view>

namespace rdbopen {

//  User and password as rdb_connectex got them; the password may name a file (net/secret.h).
struct Credentials {
    std::string user;
    std::string password;
};

class Backend {
public:
    enum class Service { tags, messages };

    Backend() = default;
    Backend(const Backend&) = delete;
    Backend& operator=(const Backend&) = delete;
    virtual ~Backend() = default;

    //  Names the back end in syslog, without user or password.
    virtual std::string label() const = 0;

    //  Says which group of requests the back end has; the other group is refused with errorNotSupported.
    virtual bool serves(Service service) const noexcept = 0;

    //  Makes the first exchange. Every wait of this and of later requests goes through waiter, which outlives the back
    //  end's last close. Returns errorNone only when requests can succeed from now on.
    virtual Status open(const Waiter& waiter) = 0;

    //  Gives everything back. Also called when open failed or was never called.
    virtual void close() noexcept = 0;

    //  Tags: names are terminated, value lengths in range; the caller has checked both.
    virtual Status tagGet(RdbTag&) { return {errorNotSupported, {}}; }
    virtual Status tagImport(const RdbTag&) { return {errorNotSupported, {}}; }
    virtual Status put(std::span<const RdbSnapshot>) { return {errorNotSupported, {}}; }

    //  Carries out one request text. Stores the reply text whatever the status.
    virtual Status message(std::string_view, std::string&) { return {errorNotSupported, {}}; }

    //  Returns the reply text to a request that is not carried out.
    virtual std::string refusal(std::string_view, int) { return {}; }

    //  A descriptor that becomes readable when the server has closed the connection, or -1. Watched while no request
    //  is served; then probe and the checks follow.
    virtual int watchedDescriptor() const noexcept { return -1; }

    //  How long after the last exchange the worker makes probe and the checks. Zero for never.
    virtual std::chrono::milliseconds checkInterval() const noexcept { return {}; }

    //  Says whether probe and the checks may be cut off at any wait, as those may that have a connection of their own. Then
    //  each wait ends with callWaits as soon as a call waits, and how the check ends means nothing.
    virtual bool checksGiveWay() const noexcept { return false; }

    //  Looks whether the connection is sound, and takes what made the watched descriptor readable.
    virtual Status probe() { return {}; }

    //  Look whether the server still holds what a successful put or message left there. Also called after each open.
    //  Return errorNone when it does, errorNotHeld when it does not, or how the look failed.
    virtual Status checkValue(const RdbSnapshot&) { return {}; }
    virtual Status checkMessage(std::string_view) { return {}; }
};

}  // namespace rdbopen

#endif
