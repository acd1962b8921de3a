//  Logs the failures of one back end to syslog. Until the back end recovers, a reason is not logged again, unless at
//  least 16 other reasons were logged since. Otherwise a worker that retries for a week would fill the log.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_ENGINE_REASON_LOG_H
#define RDBAPI_OPEN_ENGINE_REASON_LOG_H

#include <string>
#include <vector>

namespace rdbopen {

class ReasonLog {
public:
    //  Maximum number of remembered reasons; a further one replaces the oldest.
    static constexpr std::size_t capacity = 16;

    //  Logs reason for the back end named label, unless it was logged before. Two reasons that differ only in a number
    //  of seconds are the same reason. If the line cannot be sent or memory is exhausted, the next failure with this
    //  reason logs it.
    void fail(const std::string& label, const std::string& reason) noexcept;

    //  If a reason was logged, logs that the back end works again, and clears the reasons.
    void recover(const std::string& label) noexcept;

    //  Clears the reasons and logs nothing.
    void clear() noexcept { reasons_.clear(); }

private:
    bool add(std::string reason);

    std::vector<std::string> reasons_;  // without numbers of seconds; oldest first
};

}  // namespace rdbopen

#endif
