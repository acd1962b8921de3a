//  The result of an operation. This library reports failures in this form, with the exceptions below.
//
//      Status       ok, or the code and the reason of the failure
//      Result<T>    a value, or the Status of the failure
//
//  failedTo adds the caller's action in front of the reason: "the file cannot be read: Permission denied".
//
//  Some results are not failures: false from a predicate, and null or an empty std::optional, for example from a search
//  that finds nothing or from a parser of numbers. The caller may turn them into a failure. Some functions report
//  failures in another form: functions whose result the library returns unchanged to its user return only the code; a
//  few others, such as those of report.h, return false.
//
//  Threads: one thread at a time per object, like std::string.
#ifndef RDBAPI_OPEN_ENGINE_STATUS_H
#define RDBAPI_OPEN_ENGINE_STATUS_H

#include "engine/errors.h"

#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>

namespace rdbopen {

//  A request that a back end carries out succeeds, or fails in one of three ways:
//      errorBackendFailed    the back end has to be opened again
//      errorServerRefused    the server refused the request; the back end stays open, except after a request for a tag
//      any other code        the back end stays open; only the codes in desired_state.cpp, isRetryable, are retried
//  If the caller of a request for a tag times out, the worker closes the back end, whatever the result is.
struct [[nodiscard]] Status {
    int code = errorNone;
    std::string reason{};   // for the operator; contains no user and no password; may be empty
    bool failover = false;  // another address or server may succeed (net/server_addresses.h)

    bool ok() const noexcept { return code == errorNone; }
};

static_assert(std::is_nothrow_move_constructible_v<Status> && std::is_nothrow_move_assignable_v<Status>);

inline Status backendFailed(std::string reason) {
    return {errorBackendFailed, std::move(reason)};
}

inline Status serverRefused(std::string reason) {
    return {errorServerRefused, std::move(reason)};
}

//  Returns the text of an errno value.
inline std::string systemText(int error) {
    return std::generic_category().message(error);
}

//  Returns the failure with the text of an errno value.
inline Status systemFailure(int error) {
    return backendFailed(systemText(error));
}

//  Returns failure with "<action>: " before its reason.
inline Status failedTo(std::string_view action, Status failure) {
    failure.reason.insert(0, ": ").insert(0, action);
    return failure;
}

template <class T>
class [[nodiscard]] Result {
public:
    Result(T value) : value_(std::move(value)) {}

    //  Requires: !failure.ok().
    Result(Status failure) : status_(std::move(failure)) {}

    bool ok() const noexcept { return value_.has_value(); }

    //  Returns the failure; it is ok() if there is a value.
    const Status& status() const noexcept { return status_; }

    //  Return the value. Require: ok().
    T& operator*() noexcept { return *value_; }
    const T& operator*() const noexcept { return *value_; }
    T* operator->() noexcept { return &*value_; }
    const T* operator->() const noexcept { return &*value_; }

private:
    std::optional<T> value_;
    Status status_;
};

}  // namespace rdbopen

#endif
