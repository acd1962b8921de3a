//  The kernel's flags of this host's IPv6 addresses: temporary (RFC 8981) and deprecated (RFC 4862 section 5.5.4).
#ifndef RDBAPI_OPEN_NET_LOCAL_FLAGS_H
#define RDBAPI_OPEN_NET_LOCAL_FLAGS_H

#include "engine/status.h"

#include <array>
#include <cstdint>
#include <map>

namespace rdbopen {

using Ipv6Address = std::array<std::uint8_t, 16>;

//  The values of IFA_F_TEMPORARY and IFA_F_DEPRECATED in linux/if_addr.h.
inline constexpr unsigned flagTemporary = 0x01;
inline constexpr unsigned flagDeprecated = 0x20;

//  Flags by address. If several interfaces have the same address, only flags that are set on all of them are stored.
using LocalFlags = std::map<Ipv6Address, unsigned>;

//  Parses the table that the kernel provides as /proc/self/net/if_inet6. Malformed lines are skipped.
LocalFlags parseLocalFlags(const std::string& table);

//  Returns the flags of the addresses of this network namespace.
Result<LocalFlags> readLocalFlags();

}  // namespace rdbopen

#endif
