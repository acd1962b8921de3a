//  Asks the system's resolver (resolv.conf(5)) for the addresses of a name.
#ifndef TOOLS_RESOLVER_H
#define TOOLS_RESOLVER_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace check {

struct ResolverAnswer {
    std::string problem;                 // why there is no answer; empty if there is one
    std::vector<std::string> addresses;  // of AAAA records, in the form of inet_ntop
    std::uint32_t ttl = 0;               // smallest TTL of these records, in s
};

//  Queries the AAAA records of name. Waits at most 2 s for each name server of resolv.conf.
ResolverAnswer askResolver(const std::string& name);

//  Returns the AAAA records of an answer, which may be any bytes.
ResolverAnswer readResolverAnswer(std::span<const std::uint8_t> answer);

}  // namespace check

#endif
