//  The UDP log: it sends one datagram per record to a log server.
//
//      {"order":"wlog","level":30,"cabin":"netsvc"}<line feed>text        add; push without a tag
//      {"order":"append","level":30,"cabin":"netsvc"}<line feed>text      append
//      {"order":"wlog","level":30,"cabin":"netsvc"}<line feed>[tag]text   push with a tag
//
//  level is the record's level. cabin and text are not escaped: a receiver reads the JSON up to the first line feed.
//
//  Sending never blocks and is never repeated: a record that cannot be sent immediately is lost. The text of a record
//  is built on the stack.
//
//  Threads: several threads may send records at the same time. open and setlevel change the object without a lock.
#ifndef OLK_UDPLOG_H
#define OLK_UDPLOG_H

#include "olk_log.h"

#include <cstdint>

namespace olk {

//  A text in a fixed buffer. c_str terminates the text, but does not write a terminator that is already there. So
//  threads that send records only read the text. A text that fills the buffer loses its last byte.
template <size_t CAPACITY>
struct fixed_text_ {
    char text[CAPACITY] = {};
    uint32_t length = 0;
    uint32_t capacity = CAPACITY;

    const char* c_str() {
        char& end = text[length < capacity ? length : capacity - 1];
        if (end != '\0')
            end = '\0';
        return text;
    }
};

class udplog : public ilog {
public:
    int32_t level = level_inf;               // records above it are dropped
    int32_t sock = -1;                       // UDP socket; -1 if none
    alignas(8) unsigned char addr[80] = {};  // destination: a sockaddr_in or a sockaddr_in6
    uint32_t addrlen = 0;                    // bytes of the destination: 0 if none, 16 for IPv4, 28 for IPv6
    fixed_text_<128> cabin;                  // name of the log stream on the server

    udplog() = default;
    ~udplog() override;

    //  Sets destination, cabin and level from a url such as udp://192.0.2.10:5140/netsvc?level=dbg. The cabin is the
    //  path, or empty if the path is longer than 126 characters. The level is the value of the first parameter of the
    //  query if its key is "level"; otherwise, and if the value is missing or longer than 15 characters, the level
    //  stays the same. If the value is empty, as in "level=&dbg", the next parameter that is not empty is the value.
    //  Blanks anywhere in the url are ignored. The default port is 999. Waits for the resolver. Returns 0, or -1 on
    //  failure. If the url cannot be parsed, its host does not resolve or it has no path, nothing changes. If no socket
    //  can be opened, the old socket is closed, and the other settings are those of the url.
    int open(const char* url) override;

    //  add, append and push return -1 without a socket, 0 for a record that the level drops, -1 for a record that
    //  cannot be formatted or that has 30720 bytes or more with its header, and otherwise the result of sendto(2).
    __attribute__((format(printf, 3, 4))) int add(int record_level, const char* format, ...) override;
    __attribute__((format(printf, 3, 4))) int append(int record_level, const char* format, ...) override;
    __attribute__((format(printf, 4, 0))) int push(int record_level, const char* tag, const char* format,
                                                   va_list args) override;
    int getlevel() override;
    void setlevel(int configured_level) override;
    void runtime() override;
    void release() override;

private:
    bool sends_(int record_level) const { return sock != -1 && record_level <= level; }
    //  Returns the result for a record that is not sent.
    int unsent_() const { return sock == -1 ? -1 : 0; }
    void set_cabin_(const char* text, size_t length);
    void set_level_(const char* query, size_t length);
    void set_destination_(const char* address, uint16_t port);
    int open_socket_();
    char* put_header_(char* record, const char* order, int record_level);
    __attribute__((format(printf, 5, 0))) int send_(const char* order, int record_level, const char* tag,
                                                    const char* format, va_list args);
};

}  // namespace olk

#endif
