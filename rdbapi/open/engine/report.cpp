#include "engine/report.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace rdbopen {

namespace {

//  strftime would use the month names of the locale.
constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

enum class Sent { done, lost, otherType };

Sent sendOn(int type, const sockaddr_un& address, const char* bytes, std::size_t length) {
    const int descriptor = socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor < 0)
        return Sent::lost;
    const auto* to = reinterpret_cast<const sockaddr*>(&address);
    ssize_t sent = -1;
    if (type == SOCK_DGRAM)
        sent = sendto(descriptor, bytes, length, MSG_DONTWAIT | MSG_NOSIGNAL, to, sizeof address);
    else if (connect(descriptor, to, sizeof address) == 0)
        sent = send(descriptor, bytes, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    const int error = errno;
    close(descriptor);
    if (sent == static_cast<ssize_t>(length))
        return Sent::done;
    return sent < 0 && error == EPROTOTYPE ? Sent::otherType : Sent::lost;
}

//  The user who starts the program can choose any name, so blanks and characters that are not printable ASCII are
//  replaced.
std::string programName() {
    std::string name = program_invocation_short_name;
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return c <= 0x20 || c >= 0x7f; }, '?');
    return name;
}

//  Returns the length of the first UTF-8 character of text, or 0 if it is invalid or a control character. Overlong
//  forms and surrogates are invalid. U+0080 to U+009F are control characters, too: a terminal may execute them.
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

//  Returns false when the line was lost, also for lack of memory.
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

bool reportInfo(std::string_view subject, std::string_view text) noexcept {
    return report(LOG_INFO, subject, text);
}

bool reportRecovery(std::string_view subject, std::string_view text) noexcept {
    return report(LOG_NOTICE, subject, text);
}

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

std::string syslogLine(int priority, time_t now, std::string_view text) {
    tm parts{};
    localtime_r(&now, &parts);
    char head[64];
    snprintf(head, sizeof head, "<%d>%s %2d %02d:%02d:%02d ", priority, months[parts.tm_mon], parts.tm_mday,
             parts.tm_hour, parts.tm_min, parts.tm_sec);
    return std::string(head).append(programName()).append(": ").append(text);
}

//  On a stream socket, a zero byte ends the line.
bool sendSyslogLine(const char* path, const std::string& line) noexcept {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (std::strlen(path) >= sizeof address.sun_path)
        return false;
    std::strcpy(address.sun_path, path);
    Sent sent = sendOn(SOCK_DGRAM, address, line.data(), line.size());
    if (sent == Sent::otherType)
        sent = sendOn(SOCK_STREAM, address, line.c_str(), line.size() + 1);
    return sent == Sent::done;
}

}  // namespace rdbopen
