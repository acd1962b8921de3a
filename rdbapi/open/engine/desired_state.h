//  The desired state of one server: the newest definition and value of each tag that the user of the handle has put,
//  and the newest request text. What did not reach the server is pending, and the worker retries it.
//
//      requested --done--> held --check finds it gone--> pending --retry--> held
//           \--failed, refused, given up--> pending
//
//  A question for a tag that was not answered is kept in the same way: it is asked again until the server answers it.
//  A request that can never succeed, such as one that is malformed, changes nothing here.
//
//  Threads: the worker's only.
#ifndef RDBAPI_OPEN_ENGINE_DESIRED_STATE_H
#define RDBAPI_OPEN_ENGINE_DESIRED_STATE_H

#include "engine/backend.h"

#include <functional>
#include <map>
#include <optional>

namespace rdbopen {

class DesiredState {
public:
    //  Record a request and the code with which it ended.
    void recordLookup(const RdbTag& tag, int code);
    void recordTag(const RdbTag& tag, int code);
    void recordValue(const RdbSnapshot& value, int code);
    void recordRequest(std::string_view text, int code);

    bool pending() const noexcept;

    //  True when a lookup or an import of a tag is pending: what a user of the handle needs before everything else.
    bool tagPending() const noexcept;

    //  Retries what is pending, tags first. Returns the first failure, with which it stops.
    //  Requires, of this and the next two: backend serves whatever was recorded.
    Status retry(Backend& backend);

    //  Retries one pending request for a tag. Requires: tagPending().
    Status retryTag(Backend& backend);

    //  Compares the server with what it should hold, and marks as pending what is missing. Returns the first failure.
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
