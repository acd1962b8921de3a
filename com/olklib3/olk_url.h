//  A url parser that also resolves the host.
//
//               udp://192.0.2.10:5140/netsvc?level=dbg      udp://[2001:db8::5]:5140/netsvc
//      scheme   udp                                         udp
//      host     192.0.2.10:5140                             [2001:db8::5]:5140
//      port     5140                                        5140
//      ipv4     192.0.2.10
//      ipv6                                                 2001:db8::5
//      path     netsvc                                      netsvc
//      args     level=dbg
//
//  ipv4 and ipv6 are the addresses that the resolver returns. The other fields are parts of the text.
//
//  Nothing is decoded, no letter case is changed, and there is no user part. A text without a scheme starts with the
//  host part. In a host without brackets, a "?" is part of the host if a "/" follows anywhere after it; otherwise the
//  "?" ends the host. The "]" of a bracketed host may be missing. If a character other than ":", "/" or "?" follows the
//  "]", the path begins with that character. Ports are read as strtol reads numbers and are reduced to 16 bits.
//
//  Threads: one thread at a time may use an object. parse waits for the resolver.
#ifndef OLK_URL_H
#define OLK_URL_H

#include "olk_resolve.h"
#include "olk_string.h"

#include <cstdlib>

namespace olk::net {

template <class STRING>
struct url {
    uint16_t port = 0;  // 0 if absent
    STRING scheme;      // before "://"; empty if absent
    STRING ipv4;        // first IPv4 address of the host, empty if none
    STRING ipv6;        // first IPv6 address of the host, empty if none
    STRING path;        // after the "/" that ends the host part, up to "?"
    STRING args;        // after "?", up to the end of the line or text
    STRING host;        // the host part, not resolved, with its port; if it is in brackets, with both

    //  Parses s[0..len), which needs no terminating zero. Returns false if the host is empty or does not resolve, or if
    //  a ":" without a port follows a bracketed host; the fields that were parsed before keep their new values. The
    //  object can be used again.
    bool parse(const char* s, size_t len);

private:
    void clear_();
    size_t parse_scheme_(const char* s, size_t len);
    bool parse_bracketed_(const char* s, size_t len, size_t& position);
    bool parse_bracketed_port_(const char* s, size_t len, size_t& position);
    bool parse_plain_(const char* s, size_t len, size_t& position);

    static uint16_t to_port_(const char* text) { return static_cast<uint16_t>(std::strtol(text, nullptr, 10)); }
};

template <class STRING>
bool url<STRING>::parse(const char* s, size_t len) {
    clear_();
    size_t position = parse_scheme_(s, len);
    const bool bracketed = position < len && s[position] == '[';
    if (!(bracketed ? parse_bracketed_(s, len, position) : parse_plain_(s, len, position)))
        return false;
    if (read_until(position, '?', s, len, path))
        read_until(position, '\n', s, len, args);
    return true;
}

template <class STRING>
void url<STRING>::clear_() {
    port = 0;
    scheme.clear();
    ipv4.clear();
    ipv6.clear();
    path.clear();
    args.clear();
    host.clear();
}

//  Returns the position at which the host part starts.
template <class STRING>
size_t url<STRING>::parse_scheme_(const char* s, size_t len) {
    size_t position = 0;
    read_until(position, ':', s, len, scheme);
    const bool slashes = position + 2 < len && s[position] == '/' && s[position + 1] == '/';
    if (!scheme.empty() && slashes)
        return position + 2;
    scheme.clear();
    return 0;
}

template <class STRING>
bool url<STRING>::parse_bracketed_(const char* s, size_t len, size_t& position) {
    STRING name;
    ++position;
    read_until(position, ']', s, len, name);
    if (name.empty() || get_ips_by_domain(name.c_str(), ipv4, ipv6) != 0)
        return false;
    host.push_back('[');
    host.append(name.data(), name.size());
    host.push_back(']');
    if (position < len && s[position] == ':')
        return parse_bracketed_port_(s, len, position);
    if (position < len && s[position] == '/')
        ++position;
    return true;
}

//  Parses the port after ":". The port ends at the next "/". Without a "/" it ends before the next "?", which is not
//  consumed, or at the end of s.
template <class STRING>
bool url<STRING>::parse_bracketed_port_(const char* s, size_t len, size_t& position) {
    const size_t start = position + 1;
    STRING text;
    position = start;
    if (!read_until(position, '/', s, len, text)) {
        text.clear();
        position = start;
        if (read_until(position, '?', s, len, text))
            --position;
    }
    if (text.empty())
        return false;
    port = to_port_(text.c_str());
    host.push_back(':');
    host.append(text.data(), text.size());
    return true;
}

template <class STRING>
bool url<STRING>::parse_plain_(const char* s, size_t len, size_t& position) {
    const size_t start = position;
    if (!read_until(position, '/', s, len, host)) {
        host.clear();
        position = start;
        if (read_until(position, '?', s, len, host))
            --position;
    }
    STRING name;
    size_t after_name = 0;
    const bool has_port = read_until(after_name, ':', host.data(), host.size(), name);
    if (name.empty() || get_ips_by_domain(name.c_str(), ipv4, ipv6) != 0)
        return false;
    if (has_port)
        port = to_port_(host.c_str() + after_name);
    return true;
}

}  // namespace olk::net

#endif
