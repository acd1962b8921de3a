//  Discovery of the host's publishable IPv6 addresses.
#ifndef SERVICE_LOCALADDR_H
#define SERVICE_LOCALADDR_H

#include <cstdint>
#include <string>

//  Appends the host's publishable IPv6 addresses to out, in inet_ntop's form, in the order of the system's interface
//  list, separated by ",". The list is not sorted and may contain duplicates. Interface names and flags are ignored.
//
//  Excludes loopback, multicast, fe80::/9 (link-local and site-local), IPv4-mapped and IPv4-compatible addresses.
//  Includes all others, also unique-local (RFC 4193), temporary and deprecated addresses and, deliberately, the
//  unspecified address.
//
//  Returns 0, even if there are no addresses, or -1 if the interfaces cannot be listed. Requires that out is empty.
std::int32_t getLocalIpv6List(std::string& out);

#endif
