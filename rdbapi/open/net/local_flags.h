//  What the kernel says about this host's own IPv6 addresses: whether one is temporary (RFC 8981) or deprecated
//  (RFC 4862 section 5.5.4).
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

//  An address of several interfaces has the flags that it has on all of them.
using LocalFlags = std::map<Ipv6Address, unsigned>;

//  Reads the table that the kernel shows as /proc/self/net/if_inet6. A line that is none of its form is passed over.
LocalFlags parseLocalFlags(const std::string& table);

//  Returns the flags of the addresses of this network namespace.
Result<LocalFlags> readLocalFlags();

}  // namespace rdbopen

#endif
