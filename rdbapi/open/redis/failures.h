//  The reasons why none of several servers serves, as one reason.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_REDIS_FAILURES_H
#define RDBAPI_OPEN_REDIS_FAILURES_H

#include "engine/status.h"

#include <algorithm>
#include <vector>

namespace rdbopen {

class RedisFailures {
public:
    //  Adds the reason of one server, which begins with its name.
    void add(const std::string& reason) {
        if (std::find(reasons_.begin(), reasons_.end(), reason) == reasons_.end())
            reasons_.push_back(reason);
    }

    //  Returns errorBackendFailed with the first reasons.
    Status status() const {
        if (reasons_.empty())
            return backendFailed("the servers do not answer in time");
        std::string text;
        for (std::size_t i = 0; i < std::min(reasons_.size(), maxReasons); ++i)
            text.append(i == 0 ? "" : "; ").append(reasons_[i]);
        if (reasons_.size() > maxReasons)
            text.append("; and ").append(std::to_string(reasons_.size() - maxReasons)).append(" more");
        return backendFailed(std::move(text));
    }

private:
    //  A line of syslog should stay readable.
    static constexpr std::size_t maxReasons = 4;

    std::vector<std::string> reasons_;
};

}  // namespace rdbopen

#endif
