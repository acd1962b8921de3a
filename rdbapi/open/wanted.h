//  What the user of one handle wants its server to hold: the newest definition and value of each tag, and the newest
//  request text. Whatever of it did not reach the server is pending and is completed by the worker.
//
//      requested --done--> held --check finds it gone--> pending --complete--> held
//           \--failed, refused, given up--> pending
//
//  A request that can never succeed, such as one that is malformed, changes nothing here.
//
//  Threads: the worker's only.
#ifndef RDBAPI_OPEN_WANTED_H
#define RDBAPI_OPEN_WANTED_H

#include "backend.h"

#include <functional>
#include <map>
#include <optional>

namespace rdbopen {

class Wanted {
public:
    //  Take note of a request and of the code with which it ended.
    void noteTag(const RdbTag& tag, int code);
    void noteValue(const RdbSnapshot& value, int code);
    void noteMessage(std::string_view text, int code);

    bool pending() const noexcept;

    //  Makes the pending requests again. Returns the first failure, with which it stops.
    Outcome complete(Backend& backend);

    //  Asks the back end for everything that is held, and marks as pending what is not there. Returns how a look failed.
    Outcome check(Backend& backend);

private:
    struct Entry {
        std::optional<RdbTag> tag;
        std::optional<RdbSnapshot> value;
        bool tagPending = false;
        bool valuePending = false;
    };

    static Outcome completeEntry(Backend& backend, Entry& entry);
    static Outcome putValue(Backend& backend, Entry& entry);

    std::map<std::string, Entry, std::less<>> entries_;
    std::string message_;
    bool messagePending_ = false;
};

}  // namespace rdbopen

#endif
