//  Parses the lines of a state file.
#include "status_file.h"

#include <charconv>

namespace status {

namespace {

constexpr std::string_view format_name = "addrpubd-state ";
constexpr std::string_view format_version = "1";
constexpr std::size_t max_servers = 64;
constexpr std::size_t max_items = 64;
constexpr std::int64_t max_time = std::int64_t{1} << 53;  // ms; JSON numbers are exact up to this

//  Takes the next word of text, which ends at a space or at the end.
std::string_view takeWord(std::string_view& text) {
    const std::size_t space = text.find(' ');
    const std::string_view word = text.substr(0, space);
    text.remove_prefix(space == text.npos ? text.size() : space + 1);
    return word;
}

template <class Number>
bool readNumber(std::string_view word, Number& number) {
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    return error == std::errc() && end == word.data() + word.size() && number >= 0;
}

bool takeTime(std::string_view& text, Time& time) {
    return readNumber(takeWord(text), time.wall) && readNumber(takeWord(text), time.boot) && time.wall <= max_time &&
           time.boot <= max_time;
}

int digitOf(char c) {
    return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

//  Replaces the escapes \\ and \xHH. Returns false for any other backslash.
bool unescape(std::string_view text, std::string& plain) {
    plain.clear();
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            plain += text[i];
        } else if (text.substr(i + 1, 1) == "\\") {
            plain += text[++i];
        } else {
            const std::string_view code = text.substr(i + 1, 3);
            if (code.size() != 3 || code[0] != 'x' || digitOf(code[1]) < 0 || digitOf(code[2]) < 0)
                return false;
            plain += static_cast<char>(digitOf(code[1]) * 16 + digitOf(code[2]));
            i += 3;
        }
    }
    return true;
}

bool readName(std::string_view word, std::string& name) {
    return !word.empty() && (word == "-" || unescape(word, name));
}

bool readOptionalTime(std::string_view rest, std::optional<Time>& time) {
    return takeTime(rest, time.emplace()) && rest.empty();
}

bool readFailure(std::string_view rest, Server& server) {
    Failure& failure = server.failure.emplace();
    return takeTime(rest, failure.time) && readNumber(takeWord(rest), failure.code) && unescape(rest, failure.reason);
}

bool readPending(std::string_view rest, Server& server) {
    if (server.pending.size() == max_items)
        return false;
    Item& item = server.pending.emplace_back();
    return readName(takeWord(rest), item.name) && unescape(rest, item.value);
}

bool readPublished(std::string_view rest, Server& server) {
    if (server.published.size() == max_items)
        return false;
    Item& item = server.published.emplace_back();
    return takeTime(rest, item.since.emplace()) && readName(takeWord(rest), item.name) && unescape(rest, item.value);
}

bool readNext(std::string_view rest, Server& server) {
    Next& next = server.next.emplace();
    next.action = takeWord(rest);
    const bool known = next.action == "open" || next.action == "retry" || next.action == "check";
    return known && takeTime(rest, next.due) && rest.empty();
}

bool readPhase(std::string_view rest, Server& server) {
    server.phase = rest;
    return rest == "opening" || rest == "connected" || rest == "waiting";
}

bool readTagPending(std::string_view rest, Server& server) {
    server.tag_pending = true;
    return rest.empty();
}

template <std::uint64_t Server::*Count>
bool readCount(std::string_view rest, Server& server) {
    return readNumber(rest, server.*Count);
}

struct ServerLine {
    std::string_view key;
    bool (*read)(std::string_view rest, Server& server);
};

constexpr ServerLine server_lines[] = {
    {"label", [](std::string_view rest, Server& server) { return unescape(rest, server.label); }},
    {"phase", readPhase},
    {"connected", [](std::string_view rest, Server& server) { return readOptionalTime(rest, server.connected); }},
    {"success", [](std::string_view rest, Server& server) { return readOptionalTime(rest, server.success); }},
    {"failure", readFailure},
    {"connections", readCount<&Server::connections>},
    {"losses", readCount<&Server::losses>},
    {"retries", readCount<&Server::retries>},
    {"refusals", readCount<&Server::refusals>},
    {"pending", readPending},
    {"pending-tag", readTagPending},
    {"published", readPublished},
    {"next", readNext},
};

bool readServerLine(std::string_view key, std::string_view rest, Server& server) {
    for (const ServerLine& line : server_lines)
        if (line.key == key)
            return line.read(rest, server);
    return true;
}

bool readHeadLine(std::string_view key, std::string_view rest, State& state) {
    if (key == "library")
        return unescape(rest, state.library);
    if (key == "boot")
        return unescape(rest, state.boot);
    if (key == "pid")
        return readNumber(rest, state.pid);
    if (key == "started")
        return takeTime(rest, state.started) && rest.empty();
    return key != "written" || (takeTime(rest, state.written) && rest.empty());
}

bool readLine(std::string_view line, State& state) {
    const std::string_view key = takeWord(line);
    if (key != "server")
        return state.servers.empty() ? readHeadLine(key, line, state) : readServerLine(key, line, state.servers.back());
    if (state.servers.size() == max_servers || (line != "rdb" && line != "dns" && line != "any"))
        return false;
    state.servers.emplace_back().kind = line;
    return true;
}

//  Takes the next line, without its line feed. Returns nothing for text without a line feed.
std::optional<std::string_view> takeLine(std::string_view& text) {
    const std::size_t end = text.find('\n');
    if (end == text.npos)
        return {};
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    return line;
}

}  // namespace

std::optional<State> parseState(std::string_view text, std::string& problem) {
    std::optional<std::string_view> line = takeLine(text);
    if (!line || !line->starts_with(format_name)) {
        problem = "it is not a state file of addrpubd";
        return {};
    }
    if (line->substr(format_name.size()) != format_version) {
        problem = "it has another version of the format; use the addrpubd-check of the running service";
        return {};
    }
    State state;
    std::size_t number = 1;
    while ((line = takeLine(text)) && *line != "end") {
        ++number;
        if (!readLine(*line, state)) {
            problem = "line " + std::to_string(number) + " is malformed";
            return {};
        }
    }
    if (!line || !text.empty()) {
        problem = line ? "text follows its end" : "it is incomplete";
        return {};
    }
    for (const Server& server : state.servers)
        if (server.phase.empty()) {
            problem = "a server has no phase";
            return {};
        }
    return state;
}

}  // namespace status
