#include "dns/permission.h"

#include "dns/check.h"
#include "dns/pointers.h"
#include "dns/record_text.h"
#include "dns/records.h"
#include "dns/words.h"

namespace rdbopen {

namespace {

//  Records that no host has: the address is in the prefix of discarded packets (RFC 6666), the HTTPS record is without
//  parameters, and the PTR record points to a reserved name (RFC 2606).
const DnsBytes unusedAddress{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
const DnsBytes unusedHttps{0xff, 0xff, 0};
const DnsBytes unusedPointer{7, 'i', 'n', 'v', 'a', 'l', 'i', 'd', 0};

constexpr std::size_t maxPointerName = 32 * 2 + 8;  // 32 nibbles, each with a dot, and ip6.arpa

//  Returns the PTR name of an address that the host publishes in reverseZone. Without such an address, or if the host's
//  addresses cannot be read, returns the PTR name of the lowest address of the zone.
std::string nameInReverseZone(const DnsZone& zone, const std::string& reverseZone) {
    const Result<LocalAddresses> local = readLocalAddresses();
    if (local.ok())
        for (const Ipv6Address& address : zone.filter.passing(*local))
            if (std::string name = pointerName(address); zoneOfPointer({reverseZone}, name) == reverseZone)
                return name;
    std::string name = reverseZone;
    while (name.size() < maxPointerName)
        name.insert(0, "0.");
    return name;
}

Status question(DnsExchange& exchange, const std::string& zone, const std::vector<RecordSet>& sets,
                std::chrono::milliseconds until) {
    const Answer answer = exchange.ask(questionMessage(newId(), zone, sets), exchangeEnd(until));
    if (!answer.ok())
        return answer.status();
    const unsigned rcode = rcodeOf(**answer);
    return rcode == rcodeYxRrset || rcode == rcodeNoError ? Status{} : refusedWith(rcode);
}

}  // namespace

ZonePermission::ZonePermission(const DnsZone& zone, const std::string& host, const std::vector<std::uint16_t>& ports)
    : zone_(zone), sets_(recordSets(host, {}, ports)) {
    for (RecordSet& set : sets_)
        set.records = {set.type == typeAaaa ? unusedAddress : unusedHttps};
}

//  Adds nothing to results if the server refuses each set.
Status ZonePermission::askEach(DnsExchange& exchange, std::chrono::milliseconds until,
                               std::vector<Examination>& results) const {
    std::vector<Examination> each;
    bool anyAllowed = false;
    for (const RecordSet& set : sets_) {
        Status one = question(exchange, zone_.zone, {set}, until);
        if (one.code == errorBackendFailed)
            return one;
        anyAllowed = anyAllowed || one.ok();
        each.push_back({"update " + recordText(set.owner, set.type, {}), std::move(one)});
    }
    if (anyAllowed)
        results.insert(results.end(), each.begin(), each.end());
    return {};
}

Status ZonePermission::ask(DnsExchange& exchange, std::chrono::milliseconds until,
                           std::vector<Examination>& results) const {
    Status all = question(exchange, zone_.zone, sets_, until);
    if (all.code == errorBackendFailed)
        return all;
    results.push_back({"update the records of " + sets_.front().owner, all});
    if (!all.ok())
        if (Status failed = askEach(exchange, until, results); !failed.ok())
            return failed;
    for (const std::string& reverse : zone_.reverseZones) {
        const std::string name = nameInReverseZone(zone_, reverse);
        Status one = question(exchange, reverse, {{name, typePtr, {unusedPointer}}}, until);
        if (one.code == errorBackendFailed)
            return one;
        results.push_back({"update PTR records in " + reverse, std::move(one)});
    }
    return all.failover ? all : Status{};
}

}  // namespace rdbopen
