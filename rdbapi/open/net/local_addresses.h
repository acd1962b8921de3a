//  This host's IPv6 addresses: the interfaces that have them, and the kernel's flags temporary (RFC 8981) and
//  deprecated (RFC 4862 section 5.5.4).
#ifndef RDBAPI_OPEN_NET_LOCAL_ADDRESSES_H
#define RDBAPI_OPEN_NET_LOCAL_ADDRESSES_H

#include "engine/status.h"

#include <array>
#include <cstdint>
#include <map>
#include <vector>

namespace rdbopen {

using Ipv6Address = std::array<std::uint8_t, 16>;

//  The values of IFA_F_TEMPORARY and IFA_F_DEPRECATED in linux/if_addr.h.
inline constexpr unsigned flagTemporary = 0x01;
inline constexpr unsigned flagDeprecated = 0x20;

struct LocalAddress {
    unsigned flags = 0;                   // flags that are set on all interfaces with this address
    std::vector<std::string> interfaces;  // names of the interfaces with this address; at least one
};

using LocalAddresses = std::map<Ipv6Address, LocalAddress>;

//  Parses the table that the kernel provides as /proc/self/net/if_inet6. Skips a line without a valid address, valid
//  flags or an interface.
LocalAddresses parseLocalAddresses(const std::string& table);

//  Returns the addresses of this network namespace.
Result<LocalAddresses> readLocalAddresses();

}  // namespace rdbopen

#endif
