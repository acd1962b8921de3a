#include "engine/syslog_line.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace rdbopen {

namespace {

//  Not strftime's, which are those of the locale.
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

//  Whoever starts the program chooses its name.
std::string programName() {
    std::string name = program_invocation_short_name;
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return c <= 0x20 || c >= 0x7f; }, '?');
    return name;
}

}  // namespace

std::string syslogLine(int priority, time_t now, std::string_view text) {
    tm parts{};
    localtime_r(&now, &parts);
    char head[64];
    snprintf(head, sizeof head, "<%d>%s %2d %02d:%02d:%02d ", priority, months[parts.tm_mon], parts.tm_mday,
             parts.tm_hour, parts.tm_min, parts.tm_sec);
    return std::string(head).append(programName()).append(": ").append(text);
}

//  A zero byte ends a line on a stream.
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
