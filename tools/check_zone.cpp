//  Checks whether host name and password match the zone in a url of the back end dns.
#include "check.h"

#ifdef RDBOPEN_WITH_DNS
#include "dns/records.h"
#include "dns/tsig.h"
#include "net/secret.h"

#include <algorithm>
#endif

namespace check {

#ifdef RDBOPEN_WITH_DNS

namespace {

bool readZone(const Subject& subject, rdbopen::DnsZone& zone) {
    rdbopen::Url url;
    std::string reason;
    return rdbopen::parseUrl(subject.given(dnsurl), url, reason) && url.scheme == "dns" &&
           rdbopen::parseDnsZone(url, zone, reason);
}

//  Returns the longest owner name among the host's records. full is the host's name in the zone; the names do not
//  depend on the addresses.
std::string longestOwner(const Subject& subject, const std::string& full) {
    const auto& ports = subject.run.dnshttpsports;
    const std::vector<rdbopen::RecordSet> sets = rdbopen::recordSets(full, {}, {ports.begin(), ports.end()});
    return std::max_element(sets.begin(), sets.end(),
                            [](const auto& a, const auto& b) { return a.owner.size() < b.owner.size(); })
        ->owner;
}

void checkName(const Subject& subject, const rdbopen::DnsZone& zone, CReport& report) {
    std::string full;
    if (!rdbopen::isDnsName(subject.run.hostname))
        return;
    if (!rdbopen::nameInZone(subject.run.hostname, zone.zone, full)) {
        report.warn(subject.line[hostname],
                    "hostname is not in the zone " + zone.zone + " of dnsurl, so no update is sent");
        return;
    }
    const std::string owner = longestOwner(subject, full);
    if (!rdbopen::isDnsName(owner))
        report.warn(subject.line[hostname], "hostname is too long: a name of its records in the zone of dnsurl has " +
                                                std::to_string(owner.size()) +
                                                " bytes, 253 at most, so no update is sent");
}

}  // namespace

void checkZone(const Subject& subject, CReport& report) {
    rdbopen::DnsZone zone;
    if (subject.run.dnsuser.empty() || subject.run.dnspswd.empty() || !readZone(subject, zone))
        return;
    checkName(subject, zone, report);
    const rdbopen::Result<std::string> secret = rdbopen::readSecret(subject.given(dnspswd));
    if (secret.ok() && !rdbopen::isTsigSecret(*secret))
        report.warn(subject.line[dnspswd], "dnspswd is not the secret of a key in base64, so no update is sent");
}

#else

void checkZone(const Subject&, CReport&) {}

#endif

}  // namespace check
