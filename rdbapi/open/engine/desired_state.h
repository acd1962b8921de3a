//  The desired state of one server: the newest definition and value of each tag that the user of the handle has looked
//  up, imported or put, and the newest update request. Data that the server has not accepted is pending, and the worker
//  retries it.
//
//      requested --success--> held --check finds it missing--> pending --retry--> held
//           \--failure, refusal, time-out--> pending
//
//  A tag lookup that was refused or got no answer is also pending. A value or request that can never succeed, such as a
//  malformed one, is not stored. If a retry is the first to show this, the value or request is forgotten. If a value's
//  tag is missing or cannot be used, and the definition of the tag is unknown, the value is no longer pending after a
//  retry.
//
//  This class also stores when the server last confirmed held data: by accepting it on this connection, or at a later
//  check. The worker need not send confirmed data again. The time of a confirmation is the start of its request, retry
//  or check. All times are those of one monotonic clock, which the caller reads.
//
//      unconfirmed --accepted--> confirmed       a check that finds the data, or a refresh, sets a new time
//      confirmed --> unconfirmed                 if the data becomes pending, or the connection is opened again
//
//  Data that was accepted on an earlier connection is unconfirmed even if a check finds it: it may be about to expire,
//  and only a write prevents its expiry.
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
    using Time = std::chrono::milliseconds;

    //  Store a request and its result code. now: when the request began.
    void recordLookup(const RdbTag& tag, int code);
    void recordTag(const RdbTag& tag, int code);
    void recordValue(const RdbSnapshot& value, int code, Time now);
    void recordRequest(std::string_view text, int code, Time now);

    //  Forgets all confirmations. Call when a connection is opened.
    void connectionOpened() noexcept;

    //  Returns whether the server has confirmed exactly this value at the time `since` or later.
    bool isConfirmed(const RdbSnapshot& value, Time since) const;

    //  Returns the definition of a tag, if the server has sent or accepted it on this connection and has confirmed the
    //  tag's value at the time `since` or later; otherwise null. The definition is that of the last lookup, import or
    //  refresh.
    const RdbTag* confirmedTag(std::string_view name, Time since) const;

    //  Returns the newest request, if the server has confirmed it at the time `since` or later; otherwise null.
    const std::string* confirmedRequest(Time since) const noexcept;

    //  Returns whether any data or lookup is pending.
    bool pending() const noexcept;

    //  Returns whether a lookup or an import of a tag is pending. The worker retries these before event 60001.
    bool tagPending() const noexcept;

    //  Retries everything that is pending, tags first. Stops at the first failure and returns it.
    //  retry, retryTag and check require a backend that serves all recorded requests. now: the current time.
    Status retry(Backend& backend, Time now);

    //  Retries one pending request for a tag. Requires: tagPending().
    Status retryTag(Backend& backend);

    //  Compares the server's data with the desired state and marks lost data as pending. Stops at the first failure and
    //  returns it.
    Status check(Backend& backend, Time now);

    //  One value or the update request, as the user of the handle wants it.
    struct Item {
        std::string_view name;  // of the tag; empty for the update request
        std::string_view value;
        bool pending;  // has to be sent to the server, or sent again
    };

    //  Calls visitor with each item.
    template <class Visitor>
    void visit(Visitor visitor) const {
        for (const auto& [name, entry] : entries_)
            if (entry.value)
                visitor(Item{name, {entry.value->value, entry.value->valuelen}, entry.valuePending});
        if (!request_.empty())
            visitor(Item{{}, request_, requestPending_});
    }

    //  Returns whether there is no value and no request.
    bool empty() const noexcept;

    //  Marks all values and the request as pending, so that the next retry sends them again. For a tag whose definition
    //  is stored, the retry also looks up the tag. Returns whether there is a value or a request. Requires: nothing is
    //  pending.
    bool refresh() noexcept;

private:
    struct Entry {
        std::optional<RdbTag> tag;
        std::optional<RdbSnapshot> value;
        bool lookupPending = false;
        bool tagPending = false;
        bool valuePending = false;
        bool refreshDue = false;             // the next put of the value is a refresh, which also creates a missing tag
        bool tagKnown = false;               // the server has sent or accepted this definition on this connection
        std::optional<Time> valueConfirmed;  // last confirmation on this connection; empty while unconfirmed
    };

    using Entries = std::map<std::string, Entry, std::less<>>;

    Status lookUp(Backend& backend, const std::string& name);
    static Status importTag(Backend& backend, Entry& entry);
    static Status sendValue(Backend& backend, Entry& entry);
    static Status putValue(Backend& backend, Entry& entry, Time now);

    Entries entries_;
    std::string request_;
    bool requestPending_ = false;
    std::optional<Time> requestConfirmed_;  // like valueConfirmed
};

}  // namespace rdbopen

#endif
