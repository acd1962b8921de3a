//  PTR records (RFC 1035 section 3.3.12) of the host's addresses, in the reverse zones of the option "ptr":
//
//      1.0.0.0 ... 8.b.d.0.1.0.0.2.ip6.arpa   PTR   host1.example.org.
//      |           |
//      |           zone, for example that of 2001:db8::/32
//      the address, each hexadecimal digit one label, the last digit first (RFC 3596 section 2.5)
//
//  One update of each zone adds the records of the addresses to be published and deletes those of the addresses that
//  leave. An address leaves if the server has it at the host's name, but it is not to be published. The server's
//  AAAA records are queried before each update, so addresses that leave are found even after a restart. Therefore the
//  PTR records must be updated before the AAAA records are replaced. Only PTR records that point to the host are added
//  or deleted.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_DNS_POINTERS_H
#define RDBAPI_OPEN_DNS_POINTERS_H

#include "dns/exchange.h"

#include <set>

namespace rdbopen {

//  Returns whether zone consists of 1 to 32 labels of one hexadecimal digit each, then ip6.arpa. Requires: zone is in
//  lower case.
bool isReverseZone(std::string_view zone);

//  Returns the name of an address below ip6.arpa. Requires: address has 16 bytes.
std::string pointerName(std::span<const std::uint8_t> address);

//  Returns the zone in zones that contains name, or an empty text. If several contain it, returns the longest one.
std::string zoneOfPointer(const std::vector<std::string>& zones, const std::string& name);

class Pointers {
public:
    //  zones: reverse zones. ttl: time to live of the records in s.
    Pointers(std::vector<std::string> zones, std::uint32_t ttl) : zones_(std::move(zones)), ttl_(ttl) {}

    bool enabled() const noexcept { return !zones_.empty(); }

    //  Finds the addresses that leave. addresses: the AAAA records to be published. Each address found is kept until
    //  update has succeeded, or until a later call has it in addresses.
    Status findLeaving(DnsExchange& exchange, const RecordSet& addresses, std::chrono::milliseconds until);

    //  Adds the PTR records of addresses and deletes those of the addresses that leave. After a refusal, continues with
    //  the next zone.
    Status update(DnsExchange& exchange, const RecordSet& addresses, std::chrono::milliseconds until);

    //  Returns errorNotHeld if the PTR record of one of addresses is missing in its zone. Ignores an address whose PTR
    //  name is in none of the zones.
    Status check(DnsExchange& exchange, const RecordSet& addresses, std::chrono::milliseconds until) const;

private:
    Status updateZone(DnsExchange& exchange, const std::string& zone, const RecordSet& addresses,
                      std::chrono::milliseconds until) const;

    const std::vector<std::string> zones_;
    const std::uint32_t ttl_;
    std::set<DnsBytes> leaving_;  // addresses that leave; they may still have PTR records
};

}  // namespace rdbopen

#endif
