//  The state in words, for people.
#include "show.h"
#include "status.h"

namespace status {

namespace {

constexpr char green[] = "\033[32m";
constexpr char red[] = "\033[31m";
constexpr char plain[] = "\033[0m";

std::string ago(Time time, Time now) {
    return duration(now.boot - time.boot) + " ago";
}

std::string nextAction(const Server& server, Time now) {
    if (!server.next)
        return {};
    const std::int64_t left = server.next->due.boot - now.boot;
    const std::string action = server.next->action == "open" ? "attempt" : server.next->action;
    if (left > 0)
        return ", next " + action + " in " + duration(left);
    return ", " + action + " due since " + duration(-left);
}

std::string condition(const Server& server, Time now) {
    if (server.phase == "opening")
        return "connecting for the first time";
    if (server.phase == "waiting")
        return "not connected";
    if (!server.pending.empty() || server.tag_pending)
        return "not confirmed";
    if (!server.success)
        return "connected, nothing published yet";
    if (server.failure && server.failure->time.boot >= server.success->boot)
        return "refused: last confirmed " + ago(*server.success, now);
    return std::string(isConfirmed(server, now) ? "confirmed " : "late: last confirmed ") + ago(*server.success, now);
}

std::string lastFailure(const Server& server, Time now) {
    const bool recovered = server.failure && server.success && server.success->boot > server.failure->time.boot;
    if (!server.failure || (recovered && server.phase == "connected" && server.pending.empty()))
        return {};
    const std::string reason = server.failure->reason.empty() ? "no reason given" : server.failure->reason;
    return "; " + ago(server.failure->time, now) + ": " + check::printable(reason) + " (code " +
           std::to_string(server.failure->code) + ")";
}

std::string values(const Server& server, Time now) {
    std::string text;
    for (const Item& item : server.published)
        text += "; published " + check::printable(summaryOf(item)) + " " + ago(item.since.value_or(now), now);
    for (const Item& item : server.pending)
        text += "; pending " + check::printable(summaryOf(item));
    if (server.tag_pending)
        text += "; pending definition of the tag";
    return text;
}

std::string lineOf(const Server& server, Time now, bool colours) {
    const bool confirmed = isConfirmed(server, now);
    const std::string mark = confirmed ? "ok  " : "FAIL";
    return (colours ? (confirmed ? green : red) + mark + plain : mark) + " " + server.kind + " " +
           check::printable(server.label) + ": " + condition(server, now) + nextAction(server, now) +
           lastFailure(server, now) + values(server, now) + "\n";
}

}  // namespace

std::string textOf(const Reading& reading, const std::string& folder, Time now, bool colours) {
    if (reading.found != Found::running)
        return (colours ? red + absence(reading, folder, now) + plain : absence(reading, folder, now)) + "\n";
    std::string text;
    for (const Server& server : reading.state.servers)
        text += lineOf(server, now, colours);
    return text;
}

}  // namespace status
