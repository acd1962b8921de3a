//  The UDP log: one datagram per record, to a log server.
//
//      {"order":"wlog","level":30,"cabin":"netsvc"}<line feed>text        add; push without a tag
//      {"order":"append","level":30,"cabin":"netsvc"}<line feed>text      append
//      {"order":"wlog","level":30,"cabin":"netsvc"}<line feed>[tag]text   push with a tag
//
//  The level is the record's. Neither cabin nor text is escaped: a receiver takes the JSON up to the first line feed.
//
//  A record never waits and is never repeated: what cannot be sent at once is lost. Nothing is allocated per record.
//
//  Threads: open and setlevel change the object; records may be sent from several threads at once.
#ifndef OLK_UDPLOG_H
#define OLK_UDPLOG_H

#include "olk_log.h"

#include <cstdint>

namespace olk {

//  A text in a buffer of its own. It is terminated when it is read, and a terminator that already stands is not written
//  again: records of several threads only read. A text that fills the buffer loses its last byte.
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
    int32_t sock = -1;                       // UDP socket; -1 when there is none
    alignas(8) unsigned char addr[80] = {};  // destination: a sockaddr_in or a sockaddr_in6
    uint32_t addrlen = 0;                    // bytes of the destination: 0 none, 16 IPv4, 28 IPv6
    fixed_text_<128> cabin;                  // name of the log stream at the server

    udplog() = default;
    ~udplog() override;

    //  Takes destination, cabin (the path, left empty when it has more than 126 characters) and level (the first
    //  parameter of the query, when its key is "level") from a url such as udp://192.0.2.10:5140/netsvc?level=dbg.
    //  Blanks are left out wherever they stand. Without a port it is 999. Waits for the resolver. Returns 0, or -1 when
    //  the url does not parse, names no host that resolves or has no path (then nothing changes), or when there is no
    //  socket to be had (then the old one is gone and everything else is new).
    int open(const char* url) override;

    //  Each returns -1 without a socket, 0 for a record that is filtered out, -1 for one of 30720 bytes or more with its
    //  header, else what sendto(2) returned.
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
    //  What a record that is not sent gives.
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
