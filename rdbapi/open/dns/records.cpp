#include "dns/records.h"

#include "net/host_name.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>

namespace rdbopen {

namespace {

constexpr std::uint16_t httpsPort = 443;

//  Returns the data of an HTTPS record (RFC 9460 section 2.2). If port is 0, the record has no port. An empty target
//  means ".".
DnsBytes httpsRecord(std::size_t priority, const std::string& target, std::uint16_t port,
                     const std::vector<Ipv6Address>& addresses) {
    DnsBytes rdata;  // names in it are never compressed
    putDns16(rdata, priority);
    putDnsName(rdata, target);
    if (port != 0) {
        putDns16(rdata, keyPort);
        putDns16(rdata, sizeof port);
        putDns16(rdata, port);
    }
    const std::size_t hints = std::min(addresses.size(), maxHints);
    putDns16(rdata, keyIpv6Hint);
    putDns16(rdata, hints * sizeof(Ipv6Address));
    for (std::size_t i = 0; i < hints; ++i)
        rdata.insert(rdata.end(), addresses[i].begin(), addresses[i].end());
    return rdata;
}

RecordSet addressSet(const std::string& full, const std::vector<Ipv6Address>& addresses) {
    RecordSet set{full, typeAaaa, {}};
    for (const Ipv6Address& address : addresses)
        set.records.emplace_back(address.begin(), address.end());
    return set;
}

RecordSet serviceSet(const std::string& full, const std::vector<Ipv6Address>& addresses,
                     const std::vector<std::uint16_t>& ports) {
    RecordSet set{full, typeHttps, {}};
    if (addresses.empty())
        return set;
    if (std::find(ports.begin(), ports.end(), httpsPort) != ports.end()) {
        set.records.push_back(httpsRecord(1, {}, 0, addresses));
        return set;
    }
    for (const std::uint16_t port : ports)
        set.records.push_back(httpsRecord(set.records.size() + 1, {}, port, addresses));
    return set;
}

RecordSet portSet(const std::string& full, const std::vector<Ipv6Address>& addresses, std::uint16_t port) {
    RecordSet set{"_" + std::to_string(port) + "._https." + full, typeHttps, {}};
    if (!addresses.empty())
        set.records.push_back(httpsRecord(1, full, 0, addresses));
    return set;
}

}  // namespace

Result<std::string> nameInZone(const std::string& name, const std::string& zone) {
    const std::string full = lowerCase(name);
    if (full == zone || full.ends_with("." + zone))
        return full;
    if (full.find('.') != std::string::npos)
        return Status{errorBadRequest, "the zone " + zone + " does not hold the name " + name};
    return full + "." + zone;
}

std::vector<Ipv6Address> ipv6Addresses(const std::vector<std::string>& texts) {
    std::vector<Ipv6Address> found;
    for (const std::string& text : texts) {
        Ipv6Address address{};
        const bool valid = inet_pton(AF_INET6, text.c_str(), address.data()) == 1;
        if (valid && std::find(found.begin(), found.end(), address) == found.end())
            found.push_back(address);
    }
    return found;
}

std::vector<RecordSet> recordSets(const std::string& full, const std::vector<Ipv6Address>& addresses,
                                  const std::vector<std::uint16_t>& ports) {
    std::vector<RecordSet> sets{addressSet(full, addresses), serviceSet(full, addresses, ports)};
    for (const std::uint16_t port : ports)
        if (port != httpsPort)
            sets.push_back(portSet(full, addresses, port));
    return sets;
}

}  // namespace rdbopen
