//  The list of this host's addresses, compared with the minimum: one pass over the result of getifaddrs that writes
//  each IPv6 address with inet_ntop.
#include "cases.h"
#include "localaddr.h"

#include <arpa/inet.h>
#include <ifaddrs.h>

namespace bench {

namespace {

void by_service(std::size_t times) {
    std::string list;
    for (; times-- > 0;) {
        list.clear();
        getLocalIpv6List(list);
        keep(list.data());
    }
}

void by_walk(std::size_t times) {
    for (; times-- > 0;) {
        ifaddrs* first = nullptr;
        if (getifaddrs(&first) != 0)
            return;
        for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
            if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET6)
                continue;
            char text[INET6_ADDRSTRLEN];
            keep(inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr)->sin6_addr, text,
                           sizeof text));
        }
        freeifaddrs(first);
    }
}

const bool added = add("addresses/olk", 20, by_service) && add("addresses/walk", 20, by_walk);

}  // namespace

}  // namespace bench
