#include "engine/reason_log.h"

#include "engine/report.h"

#include <algorithm>
#include <string_view>

namespace rdbopen {

namespace {

//  Removes numbers of seconds. Such a number is a measurement, for example the difference between two clocks, and
//  varies with each attempt; the reason stays the same.
std::string withoutSeconds(std::string_view reason) {
    constexpr std::string_view digits = "0123456789";
    std::string kept;
    while (!reason.empty()) {
        const std::size_t number = std::min(reason.find_first_not_of(digits), reason.size());
        const std::string_view rest = reason.substr(number);
        const bool seconds = number != 0 && (rest == " s" || rest.starts_with(" s "));
        const std::size_t length = std::max(number, std::size_t{1});
        if (!seconds)
            kept.append(reason.substr(0, length));
        reason.remove_prefix(length);
    }
    return kept;
}

}  // namespace

//  The reason is stored before it is logged. If it cannot be stored, it is not logged, because each failure would log
//  it again.
void ReasonLog::fail(const std::string& label, const std::string& reason) noexcept {
    try {
        const std::string kept = withoutSeconds(reason);
        if (add(kept) && !reportFailure(label, reason))
            std::erase(reasons_, kept);
    } catch (...) {
    }
}

//  If the recovery line cannot be sent, it is not repeated. The reasons are cleared anyway, so the next failure is
//  logged.
void ReasonLog::recover(const std::string& label) noexcept {
    if (reasons_.empty())
        return;
    reportRecovery(label, "works again");
    reasons_.clear();
}

//  Returns true when reason is new.
bool ReasonLog::add(std::string reason) {
    if (std::find(reasons_.begin(), reasons_.end(), reason) != reasons_.end())
        return false;
    if (reasons_.size() == capacity)
        reasons_.erase(reasons_.begin());
    reasons_.push_back(std::move(reason));
    return true;
}

}  // namespace rdbopen
