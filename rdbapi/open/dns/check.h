//  Checks whether a zone still has the record sets of a request, and finds aliases that prevent these records.
//
//  The first set, the AAAA records, is queried last. Servers often add these records to an answer with HTTPS records
//  (RFC 9460 section 4.1). If such an answer contains exactly the AAAA records of the request, they are not queried.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_DNS_CHECK_H
#define RDBAPI_OPEN_DNS_CHECK_H

#include "dns/exchange.h"

namespace rdbopen {

inline constexpr std::chrono::milliseconds exchangeLimit{5000};

//  Returns a random message ID.
std::uint16_t newId();

//  Returns the time at which one exchange must end. until: the time at which the whole operation must end.
std::chrono::milliseconds exchangeEnd(std::chrono::milliseconds until);

//  Return a failure: for an answer with a response code other than 0, or for a server that is not responsible.
Status refusedWith(unsigned rcode);
Status wrongServer(std::string reason);

//  Returns errorServerRefused if the zone itself has an alias at owner, else errorNotHeld or the failure of the
//  exchange.
Status checkAlias(DnsExchange& exchange, const std::string& zone, const std::string& owner,
                  std::chrono::milliseconds until);

class ZoneCheck {
public:
    //  Requires: zone and sets outlive the object; sets has at least two elements.
    ZoneCheck(const std::string& zone, const std::vector<RecordSet>& sets);

    //  Returns the first message that run sends.
    const DnsBytes& first() const noexcept { return first_; }

    //  Succeeds if the server has exactly these sets. Fails with errorServerRefused if an alias prevents a set, or if
    //  the server refuses a query or is not authoritative. Fails like DnsExchange::ask if an exchange fails. In all
    //  other cases, fails with errorNotHeld.
    Status run(DnsExchange& exchange, std::chrono::milliseconds until) const;

private:
    Status checkSet(DnsExchange& exchange, const RecordSet& set, const Answer& answer,
                    std::chrono::milliseconds until) const;
    Status checkAbsence(DnsExchange& exchange, const RecordSet& set, std::chrono::milliseconds until) const;

    const std::string& zone_;
    const std::vector<RecordSet>& sets_;
    const DnsBytes first_;
};

}  // namespace rdbopen

#endif
