//  The text of the state file, line by line: a key, then words, and at the end at most one text, separated by single
//  spaces.
//
//      failure 1764000000000 5000000 1014 the connection was refused
//      key     moment                code text
//
//  docs/user/state.md describes the format.
//
//  Threads: one thread at a time per object.
#ifndef RDBAPI_OPEN_ENGINE_STATE_TEXT_H
#define RDBAPI_OPEN_ENGINE_STATE_TEXT_H

#include "engine/clock.h"

#include <string>
#include <string_view>

namespace rdbopen {

//  The first line of the file: name and version of the format.
inline constexpr std::string_view stateFormat = "addrpubd-state 1";

//  Maximum number of bytes of a text, before escaping. A longer text is cut.
inline constexpr std::size_t maxStateBytes = 2048;

class StateText {
public:
    //  Begins a line.
    StateText& line(std::string_view key);

    //  Append to the line. `text` doubles each backslash and writes bytes below 0x20 and byte 0x7f as \xHH. Call it
    //  only for the last part of a line. `word` does the same, but also writes spaces as \xHH, so that the result is
    //  one word. It writes an empty word as "-", and the word "-" as \x2d.
    StateText& number(std::uint64_t value);
    StateText& moment(Moment value);
    StateText& text(std::string_view value);
    StateText& word(std::string_view value);

    //  Appends complete lines, or nothing if the string is empty.
    void lines(std::string_view whole);

    //  Returns all lines.
    std::string take() &&;

private:
    void append(std::string_view value, bool escapeSpaces);
    void endLine();

    std::string text_;
};

}  // namespace rdbopen

#endif
