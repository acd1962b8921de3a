#include "redis/turns.h"

#include "engine/clock.h"

#include <algorithm>

namespace rdbopen {

namespace {

constexpr std::chrono::milliseconds minShare{500};

//  Maximum number of reasons in one text, so that the line in syslog stays readable.
constexpr std::size_t maxReasons = 4;

Status joined(const std::vector<std::string>& reasons) {
    if (reasons.empty())
        return backendFailed("the servers do not answer in time");
    std::string text;
    for (std::size_t i = 0; i < std::min(reasons.size(), maxReasons); ++i)
        text.append(i == 0 ? "" : "; ").append(reasons[i]);
    if (reasons.size() > maxReasons)
        text.append("; and ").append(std::to_string(reasons.size() - maxReasons)).append(" more");
    return backendFailed(std::move(text));
}

}  // namespace

Status tryInTurn(const std::vector<Server>& servers, const Waiter& waiter, std::chrono::milliseconds until,
                 const ServerAttempt& attempt) {
    std::vector<std::string> reasons;
    for (std::size_t i = 0; i < servers.size() && !waiter.cancelled(); ++i) {
        const auto now = monotonicNow();
        if (now >= until)
            break;
        const std::chrono::milliseconds share = (until - now) / static_cast<std::int64_t>(servers.size() - i);
        Status status = attempt(servers[i], std::min(until, now + std::max(share, minShare)));
        if (status.ok())
            return status;
        if (std::find(reasons.begin(), reasons.end(), status.reason) == reasons.end())
            reasons.push_back(std::move(status.reason));
    }
    return joined(reasons);
}

}  // namespace rdbopen
