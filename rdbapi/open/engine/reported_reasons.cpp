#include "engine/reported_reasons.h"

#include <algorithm>
#include <string_view>

namespace rdbopen {

namespace {

//  A count of seconds is a measurement, such as how far two clocks are apart: it differs a little with each attempt and
//  makes no new reason.
std::string withoutSeconds(std::string_view reason) {
    constexpr std::string_view digits = "0123456789";
    std::string kept;
    while (!reason.empty()) {
        const std::size_t number = std::min(reason.find_first_not_of(digits), reason.size());
        const std::string_view behind = reason.substr(number);
        const bool seconds = number != 0 && (behind == " s" || behind.starts_with(" s "));
        const std::size_t length = std::max(number, std::size_t{1});
        if (!seconds)
            kept.append(reason.substr(0, length));
        reason.remove_prefix(length);
    }
    return kept;
}

}  // namespace

bool ReportedReasons::add(const std::string& reason) {
    std::string kept = withoutSeconds(reason);
    if (std::find(reasons_.begin(), reasons_.end(), kept) != reasons_.end())
        return false;
    if (reasons_.size() == capacity)
        reasons_.erase(reasons_.begin());
    reasons_.push_back(std::move(kept));
    return true;
}

void ReportedReasons::remove(const std::string& reason) {
    std::erase(reasons_, withoutSeconds(reason));
}

}  // namespace rdbopen
