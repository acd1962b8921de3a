//  Asks a server whether the key may change the records of a host, without changing anything (questionMessage in
//  message.h). BIND, Knot and PowerDNS test the permission before the prerequisite; a server that tests the
//  prerequisite first seems to allow everything.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_DNS_PERMISSION_H
#define RDBAPI_OPEN_DNS_PERMISSION_H

#include "dns/exchange.h"
#include "dns/zone_url.h"
#include "engine/inspector.h"

namespace rdbopen {

class ZonePermission {
public:
    //  host: a result of nameInZone (records.h). ports: the ports of the host's HTTPS records. Requires: zone outlives
    //  the object.
    ZonePermission(const DnsZone& zone, const std::string& host, const std::vector<std::uint16_t>& ports);

    //  Asks for all record sets of the host together, as in an update. If the server refuses, asks for each set
    //  separately. Then asks for a PTR record in each reverse zone. Adds one element to results for each question. If
    //  the server refuses each separate set, the elements of the separate sets are left out. Fails with
    //  errorBackendFailed, or with a status whose member failover is true: another server should be asked.
    Status ask(DnsExchange& exchange, std::chrono::milliseconds until, std::vector<Examination>& results) const;

private:
    Status askEach(DnsExchange& exchange, std::chrono::milliseconds until, std::vector<Examination>& results) const;

    const DnsZone& zone_;
    std::vector<RecordSet> sets_;
};

}  // namespace rdbopen

#endif
