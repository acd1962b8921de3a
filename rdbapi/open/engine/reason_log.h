//  The failures of one back end in syslog: each reason once until the back end is sound again, however often it comes
//  and whatever comes between. A worker that retries every minute for a week would otherwise fill the log.
//
//  Threads: one at a time.
#ifndef RDBAPI_OPEN_ENGINE_REASON_LOG_H
#define RDBAPI_OPEN_ENGINE_REASON_LOG_H

#include <string>
#include <vector>

namespace rdbopen {

class ReasonLog {
public:
    //  Reasons that are remembered; one more removes the oldest.
    static constexpr std::size_t capacity = 16;

    //  Reports reason for the back end named label, unless it was reported before. Counts of seconds make no
    //  difference. A line that is lost, or for which there is no memory, is reported at the next failure.
    void fail(const std::string& label, const std::string& reason) noexcept;

    //  Reports that the back end works again when it has reported a reason, and clears the reasons.
    void recover(const std::string& label) noexcept;

    //  Clears the reasons without a report.
    void clear() noexcept { reasons_.clear(); }

private:
    bool add(std::string reason);

    std::vector<std::string> reasons_;  // without their counts of seconds, oldest first
};

}  // namespace rdbopen

#endif
