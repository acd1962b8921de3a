//  The reasons that were reported since a back end was last sound, so that each is reported once however often it comes
//  and whatever comes between.
//
//  Threads: one at a time.
#ifndef RDBAPI_OPEN_ENGINE_REPORTED_REASONS_H
#define RDBAPI_OPEN_ENGINE_REPORTED_REASONS_H

#include <string>
#include <vector>

namespace rdbopen {

class ReportedReasons {
public:
    //  Reasons that are remembered; one more removes the oldest.
    static constexpr std::size_t capacity = 16;

    //  Returns true when reason is not among them, and takes it in. Counts of seconds make no difference.
    bool add(const std::string& reason);

    //  Takes reason, which add took in last, out again.
    void remove(const std::string& reason);

    bool empty() const noexcept { return reasons_.empty(); }
    void clear() noexcept { reasons_.clear(); }

private:
    std::vector<std::string> reasons_;  // without their counts of seconds, oldest first
};

}  // namespace rdbopen

#endif
