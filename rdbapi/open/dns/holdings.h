//  Finds and removes the records that a zone, and the reverse zones of the option "ptr", have for a host. "Ours" are
//  the records of the service; only they are removed.
//
//      NAME             AAAA    all are ours, because the service replaces the whole set with each update
//      NAME             HTTPS   ours if parseOwnHttps (record_text.h) accepts it and its target is "."
//      _P._https.NAME   HTTPS   the same with the target NAME, for each given port P; other ports are not found,
//                               because a server does not list the names below a name
//      ...ip6.arpa      PTR     for each address in our records above; ours if it points to NAME
//
//  Records of these types that a wildcard supplies (RFC 4592) are left out. isInZone recognises them by an update
//  without changes; if the server refuses this update, they are listed, too. Records of other types at NAME and
//  _P._https.NAME are listed as far as the server shows them.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_DNS_HOLDINGS_H
#define RDBAPI_OPEN_DNS_HOLDINGS_H

#include "dns/exchange.h"
#include "engine/inspector.h"

namespace rdbopen {

class ZoneHoldings {
public:
    //  host: a result of nameInZone (records.h). ports: the ports of the host's HTTPS records.
    ZoneHoldings(std::string zone, std::string host, std::vector<std::uint16_t> ports,
                 std::vector<std::string> reverseZones)
        : zone_(std::move(zone)), host_(std::move(host)), ports_(std::move(ports)),
          reverseZones_(std::move(reverseZones)) {}

    //  Queries the server. If the server refuses a query about a reverse zone, adds a remark. Requires: find was not
    //  called before.
    Status find(DnsExchange& exchange, std::chrono::milliseconds until);

    //  Returns the result of find.
    const Holdings& holdings() const noexcept { return holdings_; }

    //  Deletes our records: first the PTR records with one update of each reverse zone, then the others with one update
    //  of the zone. Continues after a refusal. If the update of the zone failed, returns its failure. Otherwise
    //  returns the first failure of a reverse zone, with the member failover set to false. A repeated call leaves out
    //  the updates that have succeeded.
    Status remove(DnsExchange& exchange, std::chrono::milliseconds until);

    //  Returns one element for each update. The parameter status is the result for the updates that remove has not
    //  attempted.
    std::vector<RemovalStep> steps(const Status& status) const;

private:
    //  Sets of one zone, as the server has them, and those of their records that are ours.
    struct ZoneSets {
        std::string zone;
        std::vector<RecordSet> held;
        std::vector<RecordSet> ours;
        std::vector<std::string> texts;  // texts of the records in ours
        std::optional<Status> removal;   // result of the update, if remove has attempted it
    };

    Status findSet(DnsExchange& exchange, ZoneSets& sets, const std::string& owner, std::uint16_t type,
                   std::chrono::milliseconds until);
    void keep(ZoneSets& sets, RecordSet held);
    Status findOtherTypes(DnsExchange& exchange, const std::string& owner, std::chrono::milliseconds until);
    Status findPointers(DnsExchange& exchange, const std::string& reverseZone, std::chrono::milliseconds until);
    std::vector<std::string> pointerNames(const std::string& reverseZone) const;
    Status removeFrom(DnsExchange& exchange, const ZoneSets& sets, std::chrono::milliseconds until) const;
    Status verifyRemoval(DnsExchange& exchange, const ZoneSets& sets, std::chrono::milliseconds until) const;

    const std::string zone_;
    const std::string host_;
    const std::vector<std::uint16_t> ports_;
    const std::vector<std::string> reverseZones_;
    std::vector<ZoneSets> reverse_;
    ZoneSets forward_;
    Holdings holdings_;
};

}  // namespace rdbopen

#endif
