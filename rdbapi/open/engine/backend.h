//  The interfaces between a back end and the worker that drives it. A back end is a connection: the worker opens it,
//  sends it one request at a time, closes it after a failure, and opens it again. It implements TagBackend,
//  UpdateBackend or both.
//
//      Backend        open, probe, close
//        tags()    -> TagBackend       get, import, put, checkValue: for an rdb server
//        updates() -> UpdateBackend    apply, refusal, checkRequest: for a DNS server
//
//      closed --open() ok--> open --any request returns errorBackendFailed--> close() --back-off--> open() ...
//                             |
//                             +--a request returns errorServerRefused--> stays open; the request is retried
//
//  The worker keeps the desired state of the server and retries each request until it succeeds, so a back end may get
//  the same request several times. A back end does not keep requests; after a failure it may only remember what it
//  needs to detect later that the failed request took effect.
//
//  Every request ends with a Status (engine/status.h): errorBackendFailed, errorServerRefused, or a final code. Only
//  these two codes and errorBadRequest come with a reason.
//
//  Threads: tags() and updates() may be called on any thread, all other functions only on the worker's thread.
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

//  User and password as given to rdb_connectex; the password may name a file (net/secret.h).
struct Credentials {
    std::string user;
    std::string password;
};

//  Serves requests for tags. Requires: names are NUL-terminated and value lengths are in range.
class TagBackend {
public:
    //  Looks up tag.name and fills in the other members. Fails with errorNoSuchTag when the tag does not exist.
    virtual Status get(RdbTag& tag) = 0;

    //  Creates a tag, or replaces its definition.
    virtual Status import(const RdbTag& tag) = 0;

    //  Stores either all values or none. Fails with errorNoSuchTag or errorTagNotUsable.
    virtual Status put(std::span<const RdbSnapshot> records) = 0;

    //  Compares the server's value with this one. Fails with errorNotHeld if the server has another value or none.
    //  Called after each open and at each check.
    virtual Status checkValue(const RdbSnapshot&) { return {}; }

protected:
    ~TagBackend() = default;
};

//  Serves update requests, which are texts.
class UpdateBackend {
public:
    //  Carries out one request. Stores the text of the reply in reply, even after a failure.
    virtual Status apply(std::string_view request, std::string& reply) = 0;

    //  Returns the reply for a request that is not carried out; code says why.
    virtual std::string refusal(std::string_view request, int code) = 0;

    //  Like checkValue: compares the server's data with what the request should have produced.
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

    //  Return the interfaces that this back end implements, or null for the others. The back end owns them.
    virtual TagBackend* tags() noexcept { return nullptr; }
    virtual UpdateBackend* updates() noexcept { return nullptr; }

    //  Returns the name used in syslog lines; it contains neither user nor password.
    virtual std::string label() const = 0;

    //  Connects to the server. All waits of this and of later operations use waiter, which outlives the back end's last
    //  close. Succeeds only when requests can succeed from now on.
    virtual Status open(const Waiter& waiter) = 0;

    //  Closes the connection and frees its resources. Also called when open failed or was never called.
    virtual void close() noexcept = 0;

    //  Returns a descriptor that becomes readable when the server closes the connection, or -1. While no request is
    //  served, the worker watches it; when it becomes readable, the worker calls probe and the checks.
    virtual int watchedDescriptor() const noexcept { return -1; }

    //  Returns how long after the last exchange the worker calls probe and the checks. Zero means never.
    virtual std::chrono::milliseconds checkInterval() const noexcept { return {}; }

    //  Returns whether a call may interrupt probe and the checks. If so, each wait of a check returns callWaits once a
    //  call is queued, and the status of the check is ignored. A back end whose checks have separate connections allows
    //  this.
    virtual bool checksArePreemptible() const noexcept { return false; }

    //  Tests the connection, and reads the input that made the watched descriptor readable.
    virtual Status probe() { return {}; }
};

//  A new back end that is not open yet, or the failure to create it: errorBadUrl or errorNoResources.
using BackendResult = Result<std::unique_ptr<Backend>>;

}  // namespace rdbopen

#endif
