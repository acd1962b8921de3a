//  The state as one JSON object. Moments are seconds since 1970, corrected for later changes of the system time.
#include "status.h"

#include <cstdio>

namespace status {

namespace {

//  Bytes that are not ASCII need not be valid UTF-8, so each one is written as the character with the same number.
std::string jsonText(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte >= 0x20 && byte < 0x7f) {
            out += c;
        } else {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", byte);
            out += escape;
        }
    }
    return out + '"';
}

std::string member(const char* name, const std::string& value) {
    return "\"" + std::string(name) + "\":" + value;
}

std::string optionalTime(const char* name, const std::optional<Time>& time, Time now) {
    return "," + member(name, time ? secondsText(*time, now) : "null");
}

std::string itemsOf(const std::vector<Item>& items, Time now) {
    std::string text = "[";
    for (const Item& item : items) {
        text += std::string(text.size() > 1 ? "," : "") + "{" +
                member("name", item.name.empty() ? "null" : jsonText(item.name)) + "," +
                member("value", jsonText(item.value)) + "," + member("summary", jsonText(summaryOf(item)));
        text += (item.since ? "," + member("since", secondsText(*item.since, now)) : "") + "}";
    }
    return text + "]";
}

std::string failureOf(const std::optional<Failure>& failure, Time now) {
    if (!failure)
        return "null";
    return "{" + member("time", secondsText(failure->time, now)) + "," + member("code", std::to_string(failure->code)) +
           "," + member("reason", jsonText(failure->reason)) + "}";
}

std::string nextOf(const std::optional<Next>& next, Time now) {
    if (!next)
        return "null";
    return "{" + member("action", jsonText(next->action)) + "," + member("time", secondsText(next->due, now)) + "}";
}

std::string serverOf(const Server& server, Time now) {
    const auto boolean = [](bool value) { return value ? "true" : "false"; };
    return "{" + member("kind", jsonText(server.kind)) + "," + member("server", jsonText(server.label)) + "," +
           member("phase", jsonText(server.phase)) + "," + member("confirmed", boolean(isConfirmed(server, now))) +
           optionalTime("connected", server.connected, now) + optionalTime("success", server.success, now) + "," +
           member("failure", failureOf(server.failure, now)) + "," + member("next", nextOf(server.next, now)) + "," +
           member("connections", std::to_string(server.connections)) + "," +
           member("losses", std::to_string(server.losses)) + "," + member("retries", std::to_string(server.retries)) +
           "," + member("refusals", std::to_string(server.refusals)) + "," +
           member("tag_pending", boolean(server.tag_pending)) + "," + member("pending", itemsOf(server.pending, now)) +
           "," + member("published", itemsOf(server.published, now)) + "}";
}

}  // namespace

std::string jsonOf(const Reading& reading, const std::string& folder, Time now) {
    if (reading.found != Found::running)
        return "{" + member("running", "false") + "," + member("problem", jsonText(absence(reading, folder, now))) +
               "}\n";
    const State& state = reading.state;
    std::string text = "{" + member("running", "true") + "," + member("library", jsonText(state.library)) + "," +
                       member("pid", std::to_string(state.pid)) + "," +
                       member("started", secondsText(state.started, now)) + "," +
                       member("written", secondsText(state.written, now)) + "," + member("servers", "[");
    for (const Server& server : state.servers)
        text += (&server == &state.servers.front() ? "" : ",") + serverOf(server, now);
    return text + "]}\n";
}

}  // namespace status
