//  What a url of the back end dns asks of the host name and of the password.
#include "check.h"

#ifdef RDBOPEN_WITH_DNS
#include "dns_records.h"
#include "dns_tsig.h"
#include "secret.h"
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

}  // namespace

void checkZone(const Subject& subject, CReport& report) {
    rdbopen::DnsZone zone;
    if (subject.run.dnsuser.empty() || subject.run.dnspswd.empty() || !readZone(subject, zone))
        return;
    std::string full;
    if (rdbopen::isDnsName(subject.run.hostname) && !rdbopen::nameInZone(subject.run.hostname, zone.zone, full))
        report.warn(subject.line[hostname],
                    "hostname is not in the zone " + zone.zone + " of dnsurl, so no update is sent");
    std::string secret;
    if (rdbopen::readSecret(subject.given(dnspswd), secret).empty() && !rdbopen::isTsigSecret(secret))
        report.warn(subject.line[dnspswd], "dnspswd is not the secret of a key in base64, so no update is sent");
}

#else

void checkZone(const Subject&, CReport&) {}

#endif

}  // namespace check
