//  What a zone, and the reverse zones of the option ptr, have of a host; and its removal.
//
//      NAME             AAAA    all: the service replaces the whole set with each update
//      NAME             HTTPS   of the service, if only port and ipv6hint follow the expected target; others remain
//      _P._https.NAME   HTTPS   the same, for the ports that are given: a server does not list the names below a name
//      ...ip6.arpa      PTR     for each address of these records: of the service, if it points to NAME
//
//  AAAA and HTTPS records that a wildcard supplies (RFC 4592) are left out, unless the server refuses the question
//  (isInZone). Records of other types at NAME and _P._https.NAME remain; they are listed as far as the server shows
//  them.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_DNS_HOLDINGS_H
#define RDBAPI_OPEN_DNS_HOLDINGS_H

#include "dns/exchange.h"
#include "engine/inspector.h"

namespace rdbopen {

class ZoneHoldings {
public:
    //  host: a result of nameInZone (records.h). ports: of its HTTPS records.
    ZoneHoldings(std::string zone, std::string host, std::vector<std::uint16_t> ports,
                 std::vector<std::string> reverseZones)
        : zone_(std::move(zone)), host_(std::move(host)), ports_(std::move(ports)),
          reverseZones_(std::move(reverseZones)) {}

    //  Queries the server. A reverse zone that refuses becomes a remark. Requires: called once.
    Status find(DnsExchange& exchange, std::chrono::milliseconds until);

    //  Returns the result of find.
    const Holdings& holdings() const noexcept { return holdings_; }

    //  Deletes the records that are ours: first the PTR records, one update for each reverse zone, then the others in
    //  one update. Continues after a refusal. Returns the failure of the last update, else the first one; only the
    //  former may have failover. A repetition, at another server, leaves out the updates that have succeeded.
    Status remove(DnsExchange& exchange, std::chrono::milliseconds until);

    //  Returns one element for each update. status: of the updates that were not sent.
    std::vector<RemovalStep> steps(const Status& status) const;

private:
    //  Sets of one zone, as the server has them, and those of their records that are ours.
    struct ZoneSets {
        std::string zone;
        std::vector<RecordSet> held;
        std::vector<RecordSet> ours;
        std::vector<std::string> texts;  // of ours
        std::optional<Status> removal;   // result of the update, if it was sent
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
