//  Discovery of the host's publishable IPv6 addresses.
#ifndef SERVICE_LOCALADDR_H
#define SERVICE_LOCALADDR_H

#include <cstdint>
#include <string>

//  Appends the host's publishable IPv6 addresses to out: in inet_ntop's form, in the order of the system's interface
//  list, joined by ",", neither sorted nor made unique. Interface names and flags play no part.
//
//  Left out are loopback, multicast, fe80::/9 (link-local and site-local), IPv4-mapped and IPv4-compatible addresses.
//  Kept are all others: unique-local (RFC 4193), temporary and deprecated ones, and, on purpose, the unspecified address.
//
//  Returns 0, also when there is none, or -1 when the interfaces cannot be listed. Requires: out is empty.
std::int32_t getLocalIpv6List(std::string& out);

#endif
