//  Compares the service's address list with the list of an independent filter. Each 16 bytes of the input are one
//  address of the host; missing bytes of the last address are 0.
#include "address_model.h"
#include "fuzz_input.h"
#include "localaddr.h"

#include <vector>

#include <ifaddrs.h>
#include <netinet/in.h>

namespace {

std::vector<ifaddrs> entries;
std::vector<sockaddr_in6> addresses;
int lists_out = 0;

}  // namespace

extern "C" {
int __wrap_getifaddrs(ifaddrs** list) {
    for (size_t i = 0; i < entries.size(); ++i) {
        entries[i].ifa_next = i + 1 < entries.size() ? &entries[i + 1] : nullptr;
        entries[i].ifa_addr = reinterpret_cast<sockaddr*>(&addresses[i]);
    }
    *list = entries.empty() ? nullptr : entries.data();
    lists_out += entries.empty() ? 0 : 1;
    return 0;
}

void __wrap_freeifaddrs(ifaddrs* list) {
    require(list == entries.data(), "the returned list is freed");
    --lists_out;
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    entries.clear();
    addresses.clear();
    std::string expected;
    while (!input.empty()) {
        const std::string bytes = input.bytes(16);
        AddressBytes address{};
        std::memcpy(address.data(), bytes.data(), bytes.size());
        sockaddr_in6 entry{};
        entry.sin6_family = AF_INET6;
        std::memcpy(&entry.sin6_addr, address.data(), address.size());
        addresses.push_back(entry);
        entries.emplace_back();
        if (modelIsPublished(address))
            expected += (expected.empty() ? "" : ",") + modelAddressText(address);
    }
    std::string list;
    require(getLocalIpv6List(list) == 0, "the list is returned");
    require(list == expected, "both filters return the same list");
    require(lists_out == 0, "every list is freed");
    return 0;
}
