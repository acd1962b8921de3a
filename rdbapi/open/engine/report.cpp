#include "engine/report.h"

#include "engine/syslog_line.h"

#include <string>
#include <syslog.h>

namespace rdbopen {

namespace {

//  Length of the UTF-8 character at the beginning of text, or 0 when it is none or a control character: those of ASCII,
//  and those from U+0080 to U+009F, which a terminal may obey, too. Overlong forms and surrogates are none.
std::size_t printableLength(std::string_view text) {
    const auto at = [text](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
    const unsigned first = at(0);
    if (first < 0x80)
        return first >= 0x20 && first != 0x7f ? 1 : 0;
    const std::size_t length = first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf5 ? 4 : 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((at(i) & 0xc0) != 0x80)
            return 0;
    const bool control = first == 0xc2 && at(1) < 0xa0;
    const bool overlong = (first == 0xe0 && at(1) < 0xa0) || (first == 0xf0 && at(1) < 0x90);
    const bool beyond = (first == 0xed && at(1) > 0x9f) || (first == 0xf4 && at(1) > 0x8f);
    return control || overlong || beyond ? 0 : length;
}

//  Paths, and what servers answer, may hold any bytes.
void appendPrintable(std::string& line, std::string_view text) {
    constexpr char digits[] = "0123456789abcdef";
    while (!text.empty()) {
        const std::size_t length = printableLength(text);
        const auto byte = static_cast<unsigned char>(text.front());
        if (length != 0)
            line.append(text.substr(0, length));
        else
            line.append({'\\', 'x', digits[byte >> 4], digits[byte & 15]});
        text.remove_prefix(length == 0 ? 1 : length);
    }
}

//  Returns false when the line was lost, as it is without memory.
bool report(int level, std::string_view subject, std::string_view text) noexcept {
    try {
        std::string line = "rdbapi: ";
        appendPrintable(line, subject);
        line += ": ";
        appendPrintable(line, text);
        return sendSyslogLine(_PATH_LOG, syslogLine(LOG_DAEMON | level, time(nullptr), line));
    } catch (...) {
        return false;
    }
}

}  // namespace

bool reportFailure(std::string_view subject, std::string_view reason) noexcept {
    return report(LOG_ERR, subject, reason);
}

bool reportNote(std::string_view subject, std::string_view text) noexcept {
    return report(LOG_INFO, subject, text);
}

bool reportRecovery(std::string_view subject, std::string_view text) noexcept {
    return report(LOG_NOTICE, subject, text);
}

}  // namespace rdbopen
