//  The state as metrics for Prometheus. The label "server" names a server of the service; it contains no password.
#include "show.h"
#include "status.h"

#include <algorithm>

namespace status {

namespace {

//  Escapes bytes that are not printable ASCII: invalid UTF-8 would make the whole output invalid.
std::string escapedLabel(std::string_view text) {
    std::string out;
    for (const char c : check::printable(text))
        out += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    return out;
}

std::string labelsOf(const Server& server) {
    return "{kind=\"" + server.kind + "\",server=\"" + escapedLabel(server.label) + "\"}";
}

std::string headOf(const std::string& name, const char* type, const char* help) {
    return "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

struct Metric {
    const char* name;
    const char* type;
    const char* help;
    std::string (*value)(const Server& server, Time now);  // an empty result means no sample
};

std::string timeOf(const std::optional<Time>& time, Time now) {
    return time ? secondsText(*time, now) : std::string();
}

std::string flag(bool value) {
    return value ? "1" : "0";
}

std::string lastPublished(const Server& server, Time now) {
    std::optional<Time> last;
    for (const Item& item : server.published)
        if (item.since && (!last || item.since->boot > last->boot))
            last = item.since;
    return timeOf(last, now);
}

constexpr Metric metrics[] = {
    {"addrpubd_server_connected", "gauge", "Whether the server is connected.",
     [](const Server& server, Time) { return flag(server.phase == "connected"); }},
    {"addrpubd_server_confirmed", "gauge", "Whether the server has confirmed all data in time.",
     [](const Server& server, Time now) { return flag(isConfirmed(server, now)); }},
    {"addrpubd_server_pending_items", "gauge",
     "Number of values, requests and tags that the server has not accepted, at most 9.",
     [](const Server& server, Time) { return std::to_string(server.pending.size() + (server.tag_pending ? 1 : 0)); }},
    {"addrpubd_server_connected_timestamp_seconds", "gauge", "When the present connection began.",
     [](const Server& server, Time now) { return timeOf(server.connected, now); }},
    {"addrpubd_server_last_success_timestamp_seconds", "gauge", "When the server last confirmed all data.",
     [](const Server& server, Time now) { return timeOf(server.success, now); }},
    {"addrpubd_server_last_failure_timestamp_seconds", "gauge", "When the server last failed or refused.",
     [](const Server& server, Time now) {
         return server.failure ? secondsText(server.failure->time, now) : std::string();
     }},
    {"addrpubd_server_last_failure_code", "gauge", "Error code of the last failure.",
     [](const Server& server, Time) { return server.failure ? std::to_string(server.failure->code) : std::string(); }},
    {"addrpubd_server_published_timestamp_seconds", "gauge", "When the server last accepted a change.", lastPublished},
    {"addrpubd_server_next_attempt_timestamp_seconds", "gauge", "When the next attempt or check is due.",
     [](const Server& server, Time now) { return server.next ? secondsText(server.next->due, now) : std::string(); }},
    {"addrpubd_server_connections_total", "counter", "Connections that were established.",
     [](const Server& server, Time) { return std::to_string(server.connections); }},
    {"addrpubd_server_losses_total", "counter", "Connections that were lost or not established.",
     [](const Server& server, Time) { return std::to_string(server.losses); }},
    {"addrpubd_server_retries_total", "counter", "Attempts to send data again.",
     [](const Server& server, Time) { return std::to_string(server.retries); }},
    {"addrpubd_server_refusals_total", "counter", "Requests that the server refused.",
     [](const Server& server, Time) { return std::to_string(server.refusals); }},
};

//  Two samples with the same labels would make the whole output invalid, so only the first one is kept.
std::string samplesOf(const Metric& metric, const State& state, Time now) {
    std::string samples;
    std::vector<std::string> seen;
    for (const Server& server : state.servers) {
        const std::string labels = labelsOf(server);
        const std::string value = metric.value(server, now);
        if (value.empty() || std::find(seen.begin(), seen.end(), labels) != seen.end())
            continue;
        samples.append(metric.name).append(labels).append(" ").append(value).append("\n");
        seen.push_back(labels);
    }
    return samples.empty() ? samples : headOf(metric.name, metric.type, metric.help) + samples;
}

}  // namespace

std::string metricsOf(const Reading& reading, Time now) {
    const bool running = reading.found == Found::running;
    std::string text = headOf("addrpubd_up", "gauge", "Whether the service is running and its state can be read.") +
                       "addrpubd_up " + flag(running) + "\n";
    if (!running)
        return text;
    const State& state = reading.state;
    text += headOf("addrpubd_library_info", "gauge", "Version of the client library.") +
            "addrpubd_library_info{version=\"" + escapedLabel(state.library) + "\"} 1\n" +
            headOf("addrpubd_start_time_seconds", "gauge", "When the process of the service first wrote its state.") +
            "addrpubd_start_time_seconds " + secondsText(state.started, now) + "\n" +
            headOf("addrpubd_state_timestamp_seconds", "gauge", "When the service last wrote its state.") +
            "addrpubd_state_timestamp_seconds " + secondsText(state.written, now) + "\n";
    for (const Metric& metric : metrics)
        text += samplesOf(metric, state, now);
    return text;
}

}  // namespace status
