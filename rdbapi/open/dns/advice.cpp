#include "dns/advice.h"

#include "dns/pointers.h"
#include "dns/records.h"
#include "dns/tsig.h"
#include "dns/zone_url.h"
#include "net/host_name.h"
#include "net/secret.h"

#include <algorithm>

namespace rdbopen {

namespace {

//  Returns the longest owner name of the host's records. full is the host's name in the zone. Addresses are not needed,
//  because they add no names.
std::string longestOwner(const UrlUse& use, const std::string& full) {
    const std::vector<RecordSet> sets = recordSets(full, {}, {use.httpsPorts.begin(), use.httpsPorts.end()});
    return std::max_element(sets.begin(), sets.end(),
                            [](const auto& a, const auto& b) { return a.owner.size() < b.owner.size(); })
        ->owner;
}

void adviseOnName(const UrlUse& use, const DnsZone& zone, std::vector<Advice>& advice) {
    const std::string url(use.urlName);
    if (!isDnsName(use.hostname))
        return;
    const Result<std::string> full = nameInZone(std::string(use.hostname), zone.zone);
    if (!full.ok()) {
        advice.push_back(
            {Setting::hostname, "hostname is not in the zone " + zone.zone + " of " + url + ", so no update is sent"});
        return;
    }
    const std::string owner = longestOwner(use, *full);
    if (!isDnsName(owner))
        advice.push_back({Setting::hostname, "hostname is too long: a name of its records in the zone of " + url +
                                                 " has " + std::to_string(owner.size()) +
                                                 " bytes, 253 at most, so no update is sent"});
}

//  The host may get an address of a reverse zone later, so the text of the advice mentions only present addresses.
void adviseOnPointers(const UrlUse& use, const DnsZone& zone, std::vector<Advice>& advice) {
    const Result<LocalAddresses> local = readLocalAddresses();
    if (!local.ok())
        return;
    const std::vector<Ipv6Address> published = zone.filter.passing(*local);
    for (const std::string& reverse : zone.reverseZones)
        if (!published.empty() && std::none_of(published.begin(), published.end(), [&](const Ipv6Address& address) {
                return zoneOfPointer({reverse}, pointerName(address)) == reverse;
            }))
            advice.push_back({Setting::url, std::string(use.urlName) + ": no present address of this host is in " +
                                                reverse + ", a zone of ptr"});
}

}  // namespace

void adviseOnZone(const UrlUse& use, std::vector<Advice>& advice) {
    const Result<DnsZone> zone = parseDnsZone(use.url);
    if (!zone.ok())
        return;
    adviseOnName(use, *zone, advice);
    if (std::string text = filterAdvice(zone->filter, use.urlName); !text.empty())
        advice.push_back({Setting::url, std::move(text)});
    adviseOnPointers(use, *zone, advice);
    const Result<std::string> secret = readSecret(use.credentials.password);
    if (secret.ok() && !isTsigSecret(*secret))
        advice.push_back({Setting::password, std::string(use.passwordName) +
                                                 " is not the secret of a key in base64, so no update is sent"});
}

}  // namespace rdbopen
