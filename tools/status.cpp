#include "status.h"

#include "show.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <time.h>
#include <unistd.h>

namespace status {

namespace {

constexpr char usual_folder[] = "/run/addrpubd";

//  If the next action of a server in the state file is overdue by more than max_delay, the server is not confirmed. The
//  worker carries out each action when it is due. It writes a success that changes nothing only 50 s or more after the
//  last write. An exchange with a server takes at most 20 s, without the time of the resolver.
constexpr std::int64_t max_delay = 120'000;  // ms

//  Maximum age of the last success if the back end has no checks. Then only the service repeats each request, after
//  600 s.
constexpr std::int64_t max_silence = 600'000 + max_delay;  // ms

enum class Format { text, json, metrics };

struct Arguments {
    Format format = Format::text;
    std::string folder = usual_folder;
    std::string problem;
};

Arguments readArguments(int count, char** words) {
    Arguments arguments;
    int folders = 0;
    for (int i = 0; i < count; ++i) {
        const std::string word = words[i];
        if (word == "--json" || word == "--prometheus") {
            if (arguments.format != Format::text)
                arguments.problem = "more than one format is named";
            arguments.format = word == "--json" ? Format::json : Format::metrics;
        } else if (word.starts_with('-')) {
            arguments.problem = "there is no option " + word + " of --status";
        } else if (++folders > 1 || word.empty()) {
            arguments.problem = word.empty() ? "the name of the folder is empty" : "more than one folder is named";
        } else {
            arguments.folder = word.find('/') == word.npos ? usual_folder + ("/" + word) : word;
        }
    }
    return arguments;
}

bool terminalWithColours() {
    const char* const no_color = std::getenv("NO_COLOR");
    const char* const term = std::getenv("TERM");
    const bool wanted = no_color == nullptr || *no_color == '\0';
    return wanted && term != nullptr && std::strcmp(term, "dumb") != 0 && isatty(STDOUT_FILENO) == 1;
}

std::int64_t millisecondsOf(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

//  Returns the quoted text that begins at position, or nothing if there is none or it contains a backslash.
std::optional<std::string> quotedAt(std::string_view text, std::size_t position) {
    if (text.substr(position, 1) != "\"")
        return {};
    const std::string_view rest = text.substr(position + 1);
    const std::size_t end = rest.find_first_of("\"\\");
    if (end == rest.npos || rest[end] != '"')
        return {};
    return std::string(rest.substr(0, end));
}

}  // namespace

int run(int count, char** words, const char* usage) {
    const Arguments arguments = readArguments(count, words);
    if (!arguments.problem.empty()) {
        std::fprintf(stderr, "addrpubd-check: %s\n%s", check::printable(arguments.problem).c_str(), usage);
        return exit_not_running;
    }
    const Reading reading = readState(arguments.folder);
    const Time now = timeNow();
    const std::string output = arguments.format == Format::json ? jsonOf(reading, arguments.folder, now)
                               : arguments.format == Format::metrics
                                   ? metricsOf(reading, now)
                                   : textOf(reading, arguments.folder, now, terminalWithColours());
    std::fputs(output.c_str(), stdout);
    return exitStatus(reading, now);
}

Time timeNow() {
    return {millisecondsOf(CLOCK_REALTIME), millisecondsOf(CLOCK_BOOTTIME)};
}

bool isConfirmed(const Server& server, Time now) {
    if (server.phase != "connected" || !server.pending.empty() || server.tag_pending || !server.success)
        return false;
    if (server.failure && server.failure->time.boot >= server.success->boot)
        return false;
    if (server.next)
        return now.boot <= server.next->due.boot + max_delay;
    return now.boot <= server.success->boot + max_silence;
}

int exitStatus(const Reading& reading, Time now) {
    if (reading.found != Found::running)
        return exit_not_running;
    const auto& servers = reading.state.servers;
    const bool confirmed = !servers.empty() && std::all_of(servers.begin(), servers.end(), [now](const Server& server) {
        return isConfirmed(server, now);
    });
    return confirmed ? exit_confirmed : exit_late;
}

//  printf would use the decimal mark of the locale.
std::string secondsText(Time time, Time now) {
    const std::int64_t ms = now.wall - (now.boot - time.boot);
    const std::int64_t size = ms < 0 ? -ms : ms;
    return (ms < 0 ? "-" : "") + std::to_string(size / 1000) + "." + std::to_string(size % 1000 + 1000).substr(1);
}

//  The service writes these members in this order and escapes nothing in addresses.
std::string summaryOf(const Item& item) {
    constexpr std::string_view name_key = "\"name\":";
    constexpr std::string_view list_key = "\"ipv6s\":[";
    const std::string_view request = item.value;
    const std::size_t name_at = request.find(name_key);
    std::size_t at = request.find(list_key);
    if (!item.name.empty() || name_at == request.npos || at == request.npos)
        return item.name.empty() ? item.value : item.name + " " + item.value;
    std::optional<std::string> name = quotedAt(request, name_at + name_key.size());
    std::string addresses;
    at += list_key.size();
    while (const std::optional<std::string> address = quotedAt(request, at)) {
        addresses += (addresses.empty() ? "" : ",") + *address;
        at += address->size() + 3;  // two quotes and a comma
    }
    return name && !addresses.empty() ? *name + " " + addresses : item.value;
}

std::string absence(const Reading& reading, const std::string& folder, Time now) {
    const std::string file = check::printable(folder) + "/state";
    switch (reading.found) {
    case Found::nothing:
        return "not running, or without a server: there is no " + file;
    case Found::unknown:
        return "unknown: " + file + ": " + check::printable(reading.problem);
    default:
        break;
    }
    const std::int64_t age = now.boot - reading.state.written.boot;
    const std::string when =
        reading.earlier_boot || age < 0 ? "before the last start of the system" : duration(age) + " ago";
    return "not running: the service with pid " + std::to_string(reading.state.pid) +
           " ended without cleaning up; it wrote its last state " + when;
}

std::string duration(std::int64_t ms) {
    struct Unit {
        std::int64_t ms;
        const char* name;
    };
    constexpr Unit units[] = {{86'400'000, "day"}, {3'600'000, "hour"}, {60'000, "minute"}, {1000, "second"}};
    const std::int64_t length = std::max<std::int64_t>(ms, 0);
    const auto* unit = std::find_if(std::begin(units), std::end(units) - 1,
                                    [length](const Unit& one) { return length >= 2 * one.ms; });
    const std::int64_t count = length / unit->ms;
    return std::to_string(count) + " " + unit->name + (count == 1 ? "" : "s");
}

}  // namespace status
