#include "engine/state_text.h"

#include <charconv>
#include <utility>

namespace rdbopen {

//  These functions are not inline: they are called for each part of a line, and inlined copies would increase the size
//  of the library, which every service has in memory.

StateText& StateText::line(std::string_view key) {
    endLine();
    text_.append(key);
    return *this;
}

StateText& StateText::number(std::uint64_t value) {
    char digits[20];  // of the largest value
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    text_ += ' ';
    text_.append(digits, end);
    return *this;
}

//  A system time before 1970 is written as 0, because the format has no negative numbers.
StateText& StateText::moment(Moment value) {
    const auto positive = [](std::int64_t ms) { return static_cast<std::uint64_t>(ms < 0 ? 0 : ms); };
    return number(positive(value.wall)).number(positive(value.boot));
}

StateText& StateText::text(std::string_view value) {
    append(value, false);
    return *this;
}

StateText& StateText::word(std::string_view value) {
    if (value.empty() || value == "-")
        text_.append(value.empty() ? " -" : " \\x2d");
    else
        append(value, true);
    return *this;
}

void StateText::lines(std::string_view whole) {
    endLine();
    text_.append(whole);
}

std::string StateText::take() && {
    endLine();
    return std::move(text_);
}

void StateText::append(std::string_view value, bool escapeSpaces) {
    constexpr char digits[] = "0123456789abcdef";
    text_ += ' ';
    for (const char c : value.substr(0, maxStateBytes)) {
        const auto byte = static_cast<unsigned char>(c);
        const char escape[] = {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
        if (byte < 0x20 || byte == 0x7f || (escapeSpaces && c == ' '))
            text_.append(escape, sizeof escape);
        else
            text_.append(c == '\\' ? 2 : 1, c);
    }
}

void StateText::endLine() {
    if (!text_.empty() && text_.back() != '\n')
        text_ += '\n';
}

}  // namespace rdbopen
