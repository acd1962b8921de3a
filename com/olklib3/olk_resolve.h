//  Resolves the name of a host to text: one IPv4 and one IPv6 address, the first of each.
//
//  Threads: any thread may call these functions, because getaddrinfo(3) is thread-safe.
#ifndef OLK_RESOLVE_H
#define OLK_RESOLVE_H

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

namespace olk::net {

//  Stores an address of the given family in text, in the form of inet_ntop, unless text already has contents. Returns
//  1 if the address was stored, else 0, for example if memory is exhausted.
template <class STRING>
int store_first_address(int family, const void* address, STRING& text) {
    char buffer[40];  // the longest IPv6 text has 39 characters
    if (!text.empty() || inet_ntop(family, address, buffer, sizeof buffer) == nullptr)
        return 0;
    text.assign(buffer);
    return text.empty() ? 0 : 1;
}

//  Resolves domain, a name or an address literal, with getaddrinfo(3) and hints whose members are all 0. Stores the
//  first address of each family, in the resolver's order, in ipv4 and ipv6. A string that is not empty keeps its
//  contents. Returns 0 if at least one address was stored, else -1. So it also returns -1 if the name resolves but both
//  strings already have contents.
//
//  The resolver's list is deliberately not freed: the service resolves at most one name, at its start, so only one
//  small list is lost.
template <class STRING>
int get_ips_by_domain(const char* domain, STRING& ipv4, STRING& ipv6) {
    const addrinfo hints = {};
    addrinfo* list = nullptr;
    if (getaddrinfo(domain, nullptr, &hints, &list) != 0)
        return -1;
    int stored = 0;
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        if (entry->ai_family == AF_INET)
            stored += store_first_address(AF_INET, &reinterpret_cast<sockaddr_in*>(entry->ai_addr)->sin_addr, ipv4);
        else if (entry->ai_family == AF_INET6)
            stored += store_first_address(AF_INET6, &reinterpret_cast<sockaddr_in6*>(entry->ai_addr)->sin6_addr, ipv6);
    }
    return stored > 0 ? 0 : -1;
}

}  // namespace olk::net

#endif
