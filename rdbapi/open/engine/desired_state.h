//  The desired state of one server: the newest definition and value of each tag that the user of the handle has put,
//  and the newest update request. Data that the server has not accepted is pending, and the worker retries it.
//
//      requested --success--> held --check finds it missing--> pending --retry--> held
//           \--failure, refusal, time-out--> pending
//
//  A tag lookup without an answer is also pending: it is repeated until the server answers it. A request that can never
//  succeed, such as a malformed one, does not change the desired state.
//
//  Threads: the worker's thread only.
#ifndef RDBAPI_OPEN_ENGINE_DESIRED_STATE_H
#define RDBAPI_OPEN_ENGINE_DESIRED_STATE_H

#include "engine/backend.h"

#include <functional>
#include <map>
#include <optional>

namespace rdbopen {

class DesiredState {
public:
    //  Store a request and its result code.
    void recordLookup(const RdbTag& tag, int code);
    void recordTag(const RdbTag& tag, int code);
    void recordValue(const RdbSnapshot& value, int code);
    void recordRequest(std::string_view text, int code);

    //  Returns whether any data or lookup is pending.
    bool pending() const noexcept;

    //  Returns whether a lookup or an import of a tag is pending. The worker retries these before event 60001.
    bool tagPending() const noexcept;

    //  Retries everything that is pending, tags first. Stops at the first failure and returns it.
    //  retry, retryTag and check require a backend that serves all recorded requests.
    Status retry(Backend& backend);

    //  Retries one pending request for a tag. Requires: tagPending().
    Status retryTag(Backend& backend);

    //  Compares the server's data with the desired state and marks lost data as pending. Stops at the first failure and
    //  returns it.
    Status check(Backend& backend);

private:
    struct Entry {
        std::optional<RdbTag> tag;
        std::optional<RdbSnapshot> value;
        bool lookupPending = false;
        bool tagPending = false;
        bool valuePending = false;
    };

    using Entries = std::map<std::string, Entry, std::less<>>;

    Status lookUp(Backend& backend, const std::string& name);
    static Status importTag(Backend& backend, Entry& entry);
    static Status putValue(Backend& backend, Entry& entry);

    Entries entries_;
    std::string request_;
    bool requestPending_ = false;
};

}  // namespace rdbopen

#endif
