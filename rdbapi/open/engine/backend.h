//  The interfaces between a back end and the worker that drives it. A back end is a connection: the worker opens it,
//  sends it one request at a time, closes it after a failure, and opens it again. It implements TagBackend,
//  UpdateBackend or both.
//
//      Backend        open, probe, close
//        tags()    -> TagBackend       get, import, put, refresh, checkValue: for an rdb server
//        updates() -> UpdateBackend    apply, refusal, repetition, checkRequest: for a DNS server
//        inspector() -> Inspector      what the server has of a host, for addrpubd-check (inspector.h)
//
//      closed --open() ok--> open --request or check returns errorBackendFailed--> close() --back-off--> open() ...
//                             |
//                             +--a request returns errorServerRefused--> stays open; the request is retried. After
//                                the refusal of a request for a tag, the worker closes the back end, too.
//
//  The worker keeps the desired state of the server and retries each request that may succeed later, so a back end may
//  get the same request several times. A back end keeps no pending requests.
//
//  Every request ends with a Status (engine/status.h): errorNone, errorBackendFailed, errorServerRefused, or another
//  code. Of these, only errorBackendFailed, errorServerRefused and errorBadRequest come with a reason.
//
//  Threads: tags(), updates() and inspector() may be called on any thread. label() is called before the worker's thread
//  starts. The destructor is called after this thread has ended, or if the thread never started. All other functions
//  are called only on the worker's thread.
//  addrpubd-check has no worker and calls all functions on one thread.
#ifndef RDBAPI_OPEN_ENGINE_BACKEND_H
#define RDBAPI_OPEN_ENGINE_BACKEND_H

#include "engine/inspector.h"
#include "engine/status.h"
#include "engine/waiter.h"
#include "rdbapi.h"

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace rdbopen {

//  User and password as given to rdb_connectex; the password may name a file (net/secret.h).
struct Credentials {
    std::string user;
    std::string password;
};

//  Serves requests for tags and for their values. Requires: names are NUL-terminated and value lengths are in range.
class TagBackend {
public:
    //  Looks up tag.name and stores its definition in tag. Fails with errorNoSuchTag when the tag does not exist.
    virtual Status get(RdbTag& tag) = 0;

    //  Creates a tag, or replaces its definition.
    virtual Status import(const RdbTag& tag) = 0;

    //  Stores all values or none. After errorBackendFailed, both are possible. In a Redis Cluster, whose machines share
    //  the tags, a failure may leave some of the values stored. Fails with errorNoSuchTag if a tag does not exist, and
    //  with errorTagNotUsable if its class is not RDB_TAG_CLASS_USABLE; the dry run (log:) accepts every value.
    virtual Status put(std::span<const RdbSnapshot> records) = 0;

    //  Puts the value of one record whose tag may be missing. If the server has no usable tag of this name, creates it
    //  with the definition in tag; otherwise stores the server's definition in tag. Fails like get, import and put.
    //  Override it if one exchange is enough.
    virtual Status refresh(const RdbSnapshot& record, RdbTag& tag) {
        RdbTag held = tag;
        Status status = get(held);
        if (status.code == errorNoSuchTag || (status.ok() && held.tagclass != RDB_TAG_CLASS_USABLE))
            status = import(tag);
        else if (status.ok())
            tag = held;
        return status.ok() ? put({&record, 1}) : status;
    }

    //  Returns whether refresh takes only one exchange. If so, the worker may begin a new connection with a refresh
    //  instead of a check (worker.h). The result is constant.
    virtual bool refreshIsOneExchange() const noexcept { return false; }

    //  Compares the server's value with this one. Fails with errorNotHeld if the server has another value or none.
    //  A check calls it for the values that are not pending.
    virtual Status checkValue(const RdbSnapshot&) { return {}; }

protected:
    ~TagBackend() = default;
};

//  Serves update requests, which are texts.
class UpdateBackend {
public:
    //  Carries out one request. Stores the text of the reply in reply, even if the request fails.
    virtual Status apply(std::string_view request, std::string& reply) = 0;

    //  Returns the reply for a request that is not carried out; code says why.
    virtual std::string refusal(std::string_view request, int code) = 0;

    //  Parameters: a new request, and an earlier one that has succeeded. If both request exactly the same, returns the
    //  reply to the new one without carrying it out. Returns nothing if they differ or cannot be compared.
    virtual std::optional<std::string> repetition(std::string_view, std::string_view) { return {}; }

    //  Compares the server's data with the data that the request should have stored. Fails with errorNotHeld if they
    //  differ. A check calls it if the request is not pending.
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
    virtual Inspector* inspector() noexcept { return nullptr; }

    //  Returns the name used in syslog lines; it contains neither user nor password.
    virtual std::string label() const = 0;

    //  Connects to the server. waiter outlives the back end's last close. This and all later operations wait for
    //  sockets only by waiter, except in functions of the C library that resolve names. Success means that requests can
    //  be expected to succeed from now on.
    virtual Status open(const Waiter& waiter) = 0;

    //  Closes the connection and frees its resources. May also be called when open failed or was never called.
    virtual void close() noexcept = 0;

    //  Returns a descriptor that becomes readable when the server closes the connection, or -1. While no request is
    //  served, the worker watches it; when it becomes readable, the worker calls probe and the checks.
    virtual int watchedDescriptor() const noexcept { return -1; }

    //  Returns the interval at which the worker makes checks while nothing is pending. The worker shortens an interval
    //  above refreshTime (retry_schedule.h) to refreshTime. A check is a call of probe, then of checkValue for each
    //  value and of checkRequest for the request. Some checks are replaced by refreshes, which send the data again.
    //  Zero: no check becomes due, and each request is carried out, even if it only repeats the last one. The result is
    //  constant while the back end is open.
    virtual std::chrono::milliseconds checkInterval() const noexcept { return {}; }

    //  Returns whether a call may interrupt probe and the checks. If so, a queued call ends the waits of a check, and
    //  the status of the check is ignored. A back end whose checks have separate connections allows this.
    virtual bool checksArePreemptible() const noexcept { return false; }

    //  Tests the connection, and reads the input that made the watched descriptor readable.
    virtual Status probe() { return {}; }
};

//  A new back end that is not open yet, or the failure to create it.
using BackendResult = Result<std::unique_ptr<Backend>>;

}  // namespace rdbopen

#endif
