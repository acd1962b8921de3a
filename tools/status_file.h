//  Reads and parses the state file of a service (rdbapi/open/engine/state_board.h). docs/user/state.md describes the
//  format.
//
//  The file may contain anything, because the user of the service can write it. The parser rejects a file with a
//  malformed line, ignores lines with unknown keys, and stores texts without their escapes. So the stored texts may be
//  unprintable.
//
//  Threads: any.
#ifndef TOOLS_STATUS_FILE_H
#define TOOLS_STATUS_FILE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace status {

//  A moment on two clocks, in ms: since 1970 UTC, and since the start of the system. Both are at least 0.
struct Time {
    std::int64_t wall = 0;
    std::int64_t boot = 0;
};

struct Failure {
    Time time;
    int code = 0;        // docs/user/codes.md
    std::string reason;  // may be empty
};

struct Item {
    std::string name;  // of the tag; empty for an update request
    std::string value;
    std::optional<Time> since;  // end of the exchange after which the item was no longer pending: the server
                                // accepted it, or the library does not retry it; empty if pending
};

struct Next {
    std::string action;  // "open", "retry" or "check"
    Time due;
};

struct Server {
    std::string kind;   // "rdb", "dns" or "any"
    std::string label;  // without user and password
    std::string phase;  // "opening", "connected" or "waiting"
    std::optional<Time> connected;
    std::optional<Time> success;
    std::optional<Failure> failure;
    std::vector<Item> pending;
    std::vector<Item> published;
    std::optional<Next> next;
    bool tag_pending = false;
    //  Counts since the service created its handle for this server (rdb_create).
    std::uint64_t connections = 0;
    std::uint64_t losses = 0;
    std::uint64_t retries = 0;
    std::uint64_t refusals = 0;
};

struct State {
    std::string library;  // version of the client library
    std::string boot;     // identifier of the boot, "-" if unknown
    std::uint64_t pid = 0;
    Time started;
    Time written;
    std::vector<Server> servers;
};

//  Parses the text of a state file. If the text is malformed, returns nothing and sets problem to the reason.
std::optional<State> parseState(std::string_view text, std::string& problem);

//  What a folder contains.
enum class Found {
    running,  // the state of a running service
    ended,    // a state whose writer has ended without removing it
    nothing,  // no state file
    unknown,  // a file that cannot be read or parsed
};

struct Reading {
    Found found = Found::nothing;
    std::string problem;        // the reason, if found is unknown
    State state;                // for running and ended
    bool earlier_boot = false;  // the state was written before the last start of the system
};

//  Reads the state file in folder.
Reading readState(const std::string& folder);

}  // namespace status

#endif
