//  Selects the addresses of a request that are published. The back ends dns, dyndns2 and hosts have these options:
//
//      only=2001:db8:1::/48,2001:db8:2::/48                only addresses with one of these prefixes
//      skip=ula,temporary,deprecated,if:wg*,if:tun0        no addresses of these kinds or interfaces
//
//  The text after "if:" is a pattern of fnmatch(3). An address is skipped if all interfaces with this address match a
//  pattern. An address that the host no longer has is treated as neither temporary nor deprecated and has no interface.
//  The option "skip" does not affect IPv4 addresses; the option "only" excludes all of them.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_REQUEST_ADDRESS_FILTER_H
#define RDBAPI_OPEN_REQUEST_ADDRESS_FILTER_H

#include "net/local_addresses.h"

#include <string_view>

namespace rdbopen {

struct AddressFilter {
    struct Prefix {
        Ipv6Address address{};  // the bits after the first length bits are 0
        unsigned length = 0;    // 0 to 128
    };

    std::vector<Prefix> only;                 // empty: all addresses
    bool skipUla = false;                     // fc00::/7
    bool skipTemporary = false;               // according to the kernel's flags of the address
    bool skipDeprecated = false;              // according to the kernel's flags of the address
    std::vector<std::string> skipInterfaces;  // patterns of fnmatch(3), each not empty

    //  Store the value of the option "only" or "skip". Fail with malformedUrl.
    Status takeOnly(std::string_view value);
    Status takeSkip(std::string_view value);

    //  Returns whether address, a text, passes the filter. local: the addresses of this host.
    bool passes(const std::string& address, const LocalAddresses& local) const;

    //  Returns the elements of addresses that pass the filter, in the same order. Reads the addresses of this host if
    //  necessary. Fails with errorBackendFailed if they cannot be read.
    Result<std::vector<std::string>> apply(const std::vector<std::string>& addresses) const;

    //  Returns the addresses in local that the service publishes and that pass the filter.
    std::vector<Ipv6Address> passing(const LocalAddresses& local) const;

    //  Returns whether local has an address that the service publishes, but none passes.
    bool leavesNothingOf(const LocalAddresses& local) const;
};

//  Returns the advice of addrpubd-check if this host has addresses that the service publishes, but none of them passes
//  filter; else an empty text. urlName: the key of the url in the ini file.
std::string filterAdvice(const AddressFilter& filter, std::string_view urlName);

}  // namespace rdbopen

#endif
