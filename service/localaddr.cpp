#include "localaddr.h"

#include <cstring>
#include <memory>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

namespace {

//  Returns true if the address with these 16 bytes may be published. RFC 4291, section 2, defines the address types.
bool isPublishable(const std::uint8_t (&bytes)[16]) {
    static const std::uint8_t zeros[12] = {};
    if (bytes[0] == 0xff)
        return false;  // multicast
    if (bytes[0] == 0xfe && (bytes[1] & 0x80) != 0)
        return false;  // link-local, site-local
    if (std::memcmp(bytes, zeros, 10) == 0 && bytes[10] == 0xff && bytes[11] == 0xff)
        return false;  // IPv4-mapped
    if (std::memcmp(bytes, zeros, 12) == 0) {
        std::uint32_t word;
        std::memcpy(&word, bytes + 12, sizeof word);
        return word == 0;  // true for the unspecified address, false for loopback and IPv4-compatible
    }
    return true;
}

void appendAddress(const sockaddr* address, std::string& out) {
    if (address == nullptr || address->sa_family != AF_INET6)
        return;
    const in6_addr& ipv6 = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    if (!isPublishable(ipv6.s6_addr))
        return;
    char text[48] = {};
    if (inet_ntop(AF_INET6, &ipv6, text, sizeof text) == nullptr)
        return;
    if (!out.empty())
        out += ',';
    out += text;
}

}  // namespace

std::int32_t getLocalIpv6List(std::string& out) {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) == -1)
        return -1;
    if (list == nullptr)
        return 0;
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> freed_at_end(list, freeifaddrs);
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next)
        appendAddress(entry->ifa_addr, out);
    return 0;
}
