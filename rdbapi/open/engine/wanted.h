//  What the user of one handle wants its server to hold: the newest definition and value of each tag, and the newest
//  request text. Whatever of it did not reach the server is pending and is completed by the worker.
//
//      requested --done--> held --check finds it gone--> pending --complete--> held
//           \--failed, refused, given up--> pending
//
//  A question for a tag that was not answered is kept in the same way: it is asked again until the server answers it.
//  A request that can never succeed, such as one that is malformed, changes nothing here.
//
//  Threads: the worker's only.
#ifndef RDBAPI_OPEN_ENGINE_WANTED_H
#define RDBAPI_OPEN_ENGINE_WANTED_H

#include "engine/backend.h"

#include <functional>
#include <map>
#include <optional>

namespace rdbopen {

class Wanted {
public:
    //  Take note of a request and of the code with which it ended.
    void noteLookup(const RdbTag& tag, int code);
    void noteTag(const RdbTag& tag, int code);
    void noteValue(const RdbSnapshot& value, int code);
    void noteMessage(std::string_view text, int code);

    bool pending() const noexcept;

    //  True when a lookup or an import of a tag is pending: what a user of the handle needs before everything else.
    bool tagPending() const noexcept;

    //  Makes the pending requests again, those for tags first. Returns the first failure, with which it stops.
    Status complete(Backend& backend);

    //  Makes one pending request for a tag again. Requires: tagPending().
    Status completeTag(Backend& backend);

    //  Asks the back end for everything that is held, and marks as pending what is not there. Returns how a look failed.
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
    std::string message_;
    bool messagePending_ = false;
};

}  // namespace rdbopen

#endif
