#include "dns/pointers.h"

#include "dns/check.h"
#include "dns/words.h"

#include <algorithm>

namespace rdbopen {

namespace {

constexpr std::string_view suffix = "ip6.arpa";
constexpr std::string_view digits = "0123456789abcdef";
constexpr std::size_t maxNibbles = 32;

bool isIn(const std::string& name, const std::string& zone) {
    return name == zone || name.ends_with("." + zone);
}

DnsBytes targetOf(const RecordSet& addresses) {
    DnsBytes target;
    putDnsName(target, addresses.owner);
    return target;
}

Status inZone(const std::string& zone, Status status) {
    return status.reason.empty() ? status : failedTo("PTR records in " + zone, std::move(status));
}

}  // namespace

bool isReverseZone(std::string_view zone) {
    if (!zone.ends_with(suffix))
        return false;
    zone.remove_suffix(suffix.size());
    if (zone.empty() || zone.size() % 2 != 0 || zone.size() > 2 * maxNibbles)
        return false;
    for (; !zone.empty(); zone.remove_prefix(2))
        if (digits.find(zone[0]) == std::string_view::npos || zone[1] != '.')
            return false;
    return true;
}

std::string pointerName(std::span<const std::uint8_t> address) {
    std::string name;
    for (std::size_t i = address.size(); i != 0; --i)
        name.append({digits[address[i - 1] & 15U], '.', digits[address[i - 1] >> 4], '.'});
    return name.append(suffix);
}

std::string zoneOfPointer(const std::vector<std::string>& zones, const std::string& name) {
    std::string longest;
    for (const std::string& zone : zones)
        if (isIn(name, zone) && zone.size() > longest.size())
            longest = zone;
    return longest;
}

Status Pointers::update(DnsExchange& exchange, const RecordSet& addresses, std::chrono::milliseconds until) {
    Status status;
    for (const std::string& zone : zones_) {
        Status result = updateZone(exchange, zone, addresses, until);
        if (result.code == errorBackendFailed)
            return result;
        if (status.ok())
            status = std::move(result);
    }
    if (status.ok())
        leaving_.clear();
    return status;
}

Status Pointers::findLeaving(DnsExchange& exchange, const RecordSet& addresses, std::chrono::milliseconds until) {
    const Answer answer = exchange.ask(queryMessage(newId(), addresses.owner, typeAaaa), exchangeEnd(until));
    if (!answer.ok())
        return answer.status();
    if (const unsigned rcode = rcodeOf(**answer); rcode != rcodeNoError && rcode != rcodeNxDomain)
        return refusedWith(rcode);
    for (DnsBytes& held : answerRecords(**answer, addresses.owner, typeAaaa))
        leaving_.insert(std::move(held));
    for (const DnsBytes& published : addresses.records)
        leaving_.erase(published);
    return {};
}

Status Pointers::updateZone(DnsExchange& exchange, const std::string& zone, const RecordSet& addresses,
                            std::chrono::milliseconds until) const {
    const auto namesOf = [&](const auto& all) {
        std::vector<std::string> names;
        for (const DnsBytes& address : all)
            if (std::string name = pointerName(address); zoneOfPointer(zones_, name) == zone)
                names.push_back(std::move(name));
        return names;
    };
    const std::vector<std::string> removed = namesOf(leaving_);
    const std::vector<std::string> added = namesOf(addresses.records);
    if (removed.empty() && added.empty())
        return {};
    const Result<DnsBytes> message = pointerMessage(newId(), zone, ttl_, targetOf(addresses), removed, added);
    if (!message.ok())
        return inZone(zone, message.status());
    const Answer answer = exchange.ask(*message, exchangeEnd(until));
    if (!answer.ok())
        return inZone(zone, answer.status());
    const unsigned rcode = rcodeOf(**answer);
    return rcode == rcodeNoError ? Status{} : inZone(zone, refusedWith(rcode));
}

Status Pointers::check(DnsExchange& exchange, const RecordSet& addresses, std::chrono::milliseconds until) const {
    const DnsBytes target = targetOf(addresses);
    for (const DnsBytes& address : addresses.records) {
        const std::string name = pointerName(address);
        const std::string zone = zoneOfPointer(zones_, name);
        if (zone.empty())
            continue;
        const Answer answer = exchange.ask(queryMessage(newId(), name, typePtr), exchangeEnd(until));
        if (!answer.ok())
            return inZone(zone, answer.status());
        const unsigned rcode = rcodeOf(**answer);
        if (rcode != rcodeNoError && rcode != rcodeNxDomain)
            return inZone(zone, serverRefused(rcodeWords(rcode)));
        const std::vector<DnsBytes> held = answerRecords(**answer, name, typePtr);
        if (std::find(held.begin(), held.end(), target) == held.end())
            return {errorNotHeld, {}};
    }
    return {};
}

}  // namespace rdbopen
