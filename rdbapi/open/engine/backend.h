//  What a back end is to the worker that drives it: a connection that is opened, serves one request at a time, and is
//  closed and opened again when it fails. What it serves is one or both of two interfaces.
//
//      Backend        open, probe, close
//        tags()    -> TagBackend       get, import, put, checkValue: the rdb server
//        updates() -> UpdateBackend    apply, refusal, checkRequest: the DNS server
//
//      closed --open() ok--> open --any request returns errorBackendFailed--> close() --back-off--> open() ...
//                             |
//                             +--a request returns errorServerRefused--> stays open; the request is retried
//
//  The worker keeps the desired state of the server and retries each request until it succeeds. So every request may
//  come more than once. Of a failed request a back end keeps only what shows later that it was carried out after all.
//
//  Every request ends with a Status (engine/status.h): errorBackendFailed, errorServerRefused, or a final code. Only
//  these two and errorBadRequest have a reason.
//
//  Threads: everything is called on the worker's thread only, but tags() and updates() on any thread.
#ifndef RDBAPI_OPEN_ENGINE_BACKEND_H
#define RDBAPI_OPEN_ENGINE_BACKEND_H

#include "engine/status.h"
#include "engine/waiter.h"
#include "rdbapi.h"

#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace rdbopen {

//  User and password as rdb_connectex got them; the password may name a file (net/secret.h).
struct Credentials {
    std::string user;
    std::string password;
};

//  Serves requests for tags. Names are terminated and value lengths in range; the caller has checked both.
class TagBackend {
public:
    //  Stores the definition of the tag of this name. Fails with errorNoSuchTag when there is none.
    virtual Status get(RdbTag& tag) = 0;

    //  Defines a tag, or changes its definition.
    virtual Status import(const RdbTag& tag) = 0;

    //  Stores values, all or none. Fails with errorNoSuchTag or errorTagNotUsable.
    virtual Status put(std::span<const RdbSnapshot> records) = 0;

    //  Compares the value that the server holds. Fails with errorNotHeld when it is another one, or none. Called after
    //  each open and at each check.
    virtual Status checkValue(const RdbSnapshot&) { return {}; }

protected:
    ~TagBackend() = default;
};

//  Serves update requests, which are texts.
class UpdateBackend {
public:
    //  Carries out one request. Stores the text of the reply, also after a failure.
    virtual Status apply(std::string_view request, std::string& reply) = 0;

    //  Returns the reply to a request that is not carried out, for the reason code.
    virtual std::string refusal(std::string_view request, int code) = 0;

    //  As checkValue, for what a successful request has left at the server.
    virtual Status checkRequest(std::string_view) { return {}; }

protected:
    ~UpdateBackend() = default;
};

class Backend {
public:
    Backend() = default;
    Backend(const Backend&) = delete;
    Backend& operator=(const Backend&) = delete;
    virtual ~Backend() = default;

    //  The interfaces that it serves; null for one that it does not serve. They belong to the back end.
    virtual TagBackend* tags() noexcept { return nullptr; }
    virtual UpdateBackend* updates() noexcept { return nullptr; }

    //  Names the back end in syslog, without user or password.
    virtual std::string label() const = 0;

    //  Makes the first exchange. Every wait of this and of later requests goes through waiter, which outlives the back
    //  end's last close. Ok only when requests can succeed from now on.
    virtual Status open(const Waiter& waiter) = 0;

    //  Releases everything. Also called when open failed or was never called.
    virtual void close() noexcept = 0;

    //  A descriptor that becomes readable when the server has closed the connection, or -1. Watched while no request
    //  is served; then probe and the checks follow.
    virtual int watchedDescriptor() const noexcept { return -1; }

    //  How long after the last exchange the worker makes probe and the checks. Zero for never.
    virtual std::chrono::milliseconds checkInterval() const noexcept { return {}; }

    //  Returns whether probe and the checks may be cut off at any wait, as those may that have a connection of their own. Then
    //  each wait ends with callWaits as soon as a call waits, and the status of the check is ignored.
    virtual bool checksArePreemptible() const noexcept { return false; }

    //  Tests the connection, and takes what made the watched descriptor readable.
    virtual Status probe() { return {}; }
};

//  A new back end, unopened, or why the url does not describe one: errorBadUrl, errorNoResources.
using BackendResult = Result<std::unique_ptr<Backend>>;

}  // namespace rdbopen

#endif
