//  Flags of this host's own IPv6 addresses in the kernel: temporary (RFC 8981) and deprecated (RFC 4862 section 5.5.4).
#ifndef RDBAPI_OPEN_NET_LOCAL_FLAGS_H
#define RDBAPI_OPEN_NET_LOCAL_FLAGS_H

#include "engine/status.h"

#include <array>
#include <cstdint>
#include <map>

namespace rdbopen {

using Ipv6Address = std::array<std::uint8_t, 16>;

//  IFA_F_TEMPORARY and IFA_F_DEPRECATED of linux/if_addr.h.
inline constexpr unsigned flagTemporary = 0x01;
inline constexpr unsigned flagDeprecated = 0x20;

//  An address of several interfaces has only the flags that it has on all of them.
using LocalFlags = std::map<Ipv6Address, unsigned>;

//  Parses the table that the kernel provides as /proc/self/net/if_inet6. Malformed lines are skipped.
LocalFlags parseLocalFlags(const std::string& table);

//  Returns the flags of the addresses of this network namespace.
Result<LocalFlags> readLocalFlags();

}  // namespace rdbopen

#endif
