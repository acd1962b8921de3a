//  What a back end is to the worker that drives it: something that is opened, serves one request at a time, and is
//  closed and opened again when it fails.
//
//      closed --open() ok--> open --any request returns errorBackendFailed--> close() --back-off--> open() ...
//
//  Threads: open, close and the requests are called on the worker's thread only; serves() on any thread.
#ifndef RDBAPI_OPEN_BACKEND_H
#define RDBAPI_OPEN_BACKEND_H

#include "open_errors.h"
#include "rdbapi.h"

#include <span>
#include <string>
#include <string_view>

namespace rdbopen {

//  How a request ended. errorBackendFailed means that the back end has to be opened again; every other code leaves it
//  as it is. reason is for the operator, empty unless the back end failed, and never holds a password.
struct Outcome {
    int code = errorNone;
    std::string reason;
};

inline Outcome backendFailed(std::string reason) {
    return {errorBackendFailed, std::move(reason)};
}

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

    //  Makes the first exchange. Returns errorNone only when requests can succeed from now on.
    virtual Outcome open() = 0;

    //  Gives everything back. Also called when open failed or was never called.
    virtual void close() noexcept = 0;

    //  Tags: names are terminated, value lengths in range; the caller has checked both.
    virtual Outcome tagGet(RdbTag&) { return {errorNotSupported, {}}; }
    virtual Outcome tagImport(const RdbTag&) { return {errorNotSupported, {}}; }
    virtual Outcome put(std::span<const RdbSnapshot>) { return {errorNotSupported, {}}; }

    //  Carries out one request text. Stores the reply text whatever the outcome.
    virtual Outcome message(std::string_view, std::string&) { return {errorNotSupported, {}}; }

    //  Returns the reply text to a request that is not carried out.
    virtual std::string refusal(std::string_view, int) { return {}; }
};

}  // namespace rdbopen

#endif
