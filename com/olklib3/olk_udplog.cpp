#include "olk_udplog.h"

#include "olk_url.h"
#include "olk_words.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

namespace olk {

namespace {

constexpr uint16_t default_port = 999;
constexpr int send_buffer_bytes = 0x20000;
constexpr size_t record_bytes = 30720;  // limit of a record with its header and a terminating zero

static_assert(sizeof(sockaddr_in) == 16 && sizeof(sockaddr_in6) == 28);

//  Copies text to the buffer (parameter to) without a terminator. Returns the end of the copy.
char* put(char* to, std::string_view text) {
    std::memcpy(to, text.data(), text.size());
    return to + text.size();
}

}  // namespace

udplog::~udplog() {
    if (sock == -1)
        return;
    shutdown(sock, SHUT_RDWR);
    close(sock);
    sock = -1;
}

int udplog::open(const char* url) {
    if (url == nullptr)
        return -1;
    string text;
    for (; *url != '\0'; ++url)
        if (*url != ' ' && *url != '\t')
            text.push_back(*url);
    net::url<string> parts;
    if (text.empty() || !parts.parse(text.data(), text.size()) || parts.path.empty())
        return -1;

    set_cabin_(parts.path.data(), parts.path.size());
    set_level_(parts.args.data(), parts.args.size());
    if (sock != -1) {
        close(sock);
        sock = -1;
    }
    const string& address = parts.ipv4.empty() ? parts.ipv6 : parts.ipv4;
    set_destination_(address.c_str(), parts.port != 0 ? parts.port : default_port);
    sock = open_socket_();
    return sock == -1 ? -1 : 0;
}

//  If the text is too long, the cabin is deliberately left empty: a shortened name could be the name of another stream.
void udplog::set_cabin_(const char* text, size_t length) {
    cabin.length = length < cabin.capacity - 1 ? static_cast<uint32_t>(length) : 0;
    std::memcpy(cabin.text, text, cabin.length);
    cabin.text[cabin.length] = '\0';
}

//  Only the first parameter of the query is used.
void udplog::set_level_(const char* query, size_t length) {
    char key[word_size];
    char value[word_size];
    size_t position = 0;
    if (read_word(query, length, position, "=", key) != word_end::separator)
        return;
    if (read_word(query, length, position, "&", value) == word_end::none)
        return;
    if (strcasecmp(key, "level") == 0)
        level = level_from_text(value);
}

//  An empty address becomes 0.0.0.0. An address that cannot be converted leaves the destination unchanged.
void udplog::set_destination_(const char* address, uint16_t port) {
    if (std::strchr(address, ':') != nullptr) {
        sockaddr_in6 ipv6 = {};
        ipv6.sin6_family = AF_INET6;
        ipv6.sin6_port = htons(port);
        if (inet_pton(AF_INET6, address, &ipv6.sin6_addr) != 1)
            return;
        std::memcpy(addr, &ipv6, sizeof ipv6);
        addrlen = sizeof ipv6;
        return;
    }
    sockaddr_in ipv4 = {};
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(port);
    if (*address != '\0' && inet_pton(AF_INET, address, &ipv4.sin_addr) != 1)
        return;
    std::memcpy(addr, &ipv4, sizeof ipv4);
    addrlen = sizeof ipv4;
}

//  Opens a socket of the destination's family. Returns -1 on failure.
int udplog::open_socket_() {
    sa_family_t family = AF_UNSPEC;
    if (addrlen != 0)
        std::memcpy(&family, addr, sizeof family);
    const int fd = socket(family, SOCK_DGRAM, IPPROTO_UDP);
    if (fd == -1)
        return -1;
    fcntl(fd, F_SETFD, fcntl(fd, F_GETFD) | FD_CLOEXEC);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send_buffer_bytes, sizeof send_buffer_bytes);
    return fd;
}

//  Writes the header line to record, which must have room for the longest header. Returns the end of the header.
char* udplog::put_header_(char* record, const char* order, int record_level) {
    constexpr size_t max_digits = 11;
    char* next = put(record, "{\"order\":\"");
    next = stpcpy(next, order);
    next = put(next, "\",\"level\":");
    next = std::to_chars(next, next + max_digits, record_level).ptr;
    next = put(next, ",\"cabin\":\"");
    next = stpcpy(next, cabin.c_str());
    return put(next, "\"}\n");
}

//  Formats one record and sends it. Requires that sends_(record_level) is true.
int udplog::send_(const char* order, int record_level, const char* tag, const char* format, va_list args) {
    char record[record_bytes];
    char* const end = record + record_bytes;
    char* next = put_header_(record, order, record_level);
    if (tag != nullptr && *tag != '\0') {
        const auto room = static_cast<size_t>(end - next);
        const int length = std::snprintf(next, room, "[%s]", tag);
        if (length < 0 || static_cast<size_t>(length) >= room)
            return -1;
        next += length;
    }
    const auto room = static_cast<size_t>(end - next);
    const int length = std::vsnprintf(next, room, format, args);
    if (length < 0 || static_cast<size_t>(length) >= room)
        return -1;
    next += length;
    const auto* destination = addrlen != 0 ? reinterpret_cast<const sockaddr*>(addr) : nullptr;
    return static_cast<int>(
        sendto(sock, record, static_cast<size_t>(next - record), MSG_DONTWAIT, destination, addrlen));
}

int udplog::add(int record_level, const char* format, ...) {
    if (!sends_(record_level))
        return unsent_();
    va_list args;
    va_start(args, format);
    const int result = send_("wlog", record_level, nullptr, format, args);
    va_end(args);
    return result;
}

int udplog::append(int record_level, const char* format, ...) {
    if (!sends_(record_level))
        return unsent_();
    va_list args;
    va_start(args, format);
    const int result = send_("append", record_level, nullptr, format, args);
    va_end(args);
    return result;
}

int udplog::push(int record_level, const char* tag, const char* format, va_list args) {
    if (!sends_(record_level))
        return unsent_();
    return send_("wlog", record_level, tag, format, args);
}

int udplog::getlevel() {
    return level;
}

void udplog::setlevel(int configured_level) {
    level = configured_level;
}

void udplog::runtime() {}

void udplog::release() {
    delete this;
}

}  // namespace olk
