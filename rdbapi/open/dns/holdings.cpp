#include "dns/holdings.h"

#include "dns/check.h"
#include "dns/pointers.h"
#include "dns/record_text.h"
#include "dns/records.h"
#include "dns/words.h"

#include <algorithm>
#include <set>

namespace rdbopen {

namespace {

constexpr unsigned rcodeNxRrset = 8;

//  Types that administrators add to the name of a host: A, NS, CNAME, MX, TXT, LOC, SRV, NAPTR, DNAME, SSHFP, TLSA,
//  SVCB and CAA.
constexpr std::uint16_t commonTypes[] = {1, 2, typeCname, 15, 16, 29, 33, 35, 39, 44, 52, 64, 257};

constexpr char otherType[] = "it is of another type";
constexpr char otherHttps[] = "it has another form than the records of the service";
constexpr char otherTarget[] = "it points to another name";

//  Returns the types of the records of owner in an answer, without RRSIG and NSEC (RFC 4034), which a server
//  adds itself.
std::set<std::uint16_t> typesIn(const ldns_pkt& packet, const std::string& owner) {
    std::set<std::uint16_t> types;
    const ldns_rr_list* const records = ldns_pkt_answer(&packet);
    for (std::size_t i = 0; i < ldns_rr_list_rr_count(records); ++i) {
        const ldns_rr_type type = ldns_rr_get_type(ldns_rr_list_rr(records, i));
        if (type != LDNS_RR_TYPE_RRSIG && type != LDNS_RR_TYPE_NSEC)
            types.insert(static_cast<std::uint16_t>(type));
    }
    std::erase_if(types, [&](std::uint16_t type) { return !answerHas(packet, owner, type); });
    return types;
}

//  Returns the answer to a query for owner and type. Fails if the server refuses the query or is not authoritative.
Answer authoritative(DnsExchange& exchange, const std::string& owner, std::uint16_t type,
                     std::chrono::milliseconds until) {
    Answer answer = exchange.ask(queryMessage(newId(), owner, type), exchangeEnd(until));
    if (!answer.ok())
        return answer;
    if (const unsigned rcode = rcodeOf(**answer); rcode != rcodeNoError && rcode != rcodeNxDomain)
        return refusedWith(rcode);
    if (!ldns_pkt_aa(answer->get()))
        return wrongServer("the server is not authoritative for " + owner);
    return answer;
}

//  Returns why a removal keeps the record of set with this data, or an empty text if it deletes the record, because the
//  service has published it.
std::string whyItRemains(const std::string& host, const RecordSet& set, const DnsBytes& data) {
    if (set.type == typePtr)
        return pointerTarget(data) == host ? "" : otherTarget;
    if (set.type != typeHttps)
        return {};
    const auto record = parseOwnHttps(data);
    return record && record->target == (set.owner == host ? "" : host) ? "" : otherHttps;
}

//  Returns whether the zone itself has records with set's owner and type. set contains the records of an answer, which
//  may come from a wildcard instead. So this function sends an update whose prerequisite is that the zone has no such
//  record. If the server refuses the update for another reason, returns true, because the zone may have the records.
Result<bool> isInZone(DnsExchange& exchange, const std::string& zone, const RecordSet& set,
                      std::chrono::milliseconds until) {
    if (set.records.empty())
        return false;
    const Answer answer = exchange.ask(absenceMessage(newId(), zone, set.owner, set.type), exchangeEnd(until));
    if (!answer.ok())
        return answer.status().code == errorServerRefused ? Result<bool>(true) : answer.status();
    return rcodeOf(**answer) != rcodeNoError;
}

Status changedSince(const std::string& zone) {
    return serverRefused("the records in " + zone + " have changed since they were shown; nothing was deleted there");
}

}  // namespace

Status ZoneHoldings::find(DnsExchange& exchange, std::chrono::milliseconds until) {
    forward_.zone = zone_;
    holdings_.name = host_;
    std::set<std::string> owners;
    for (const RecordSet& set : recordSets(host_, {}, ports_)) {
        if (Status failed = findSet(exchange, forward_, set.owner, set.type, until); !failed.ok())
            return failed;
        owners.insert(set.owner);
    }
    holdings_.addresses.emplace();
    for (const RecordSet& set : forward_.ours)
        for (const DnsBytes& data : set.records)
            if (set.type == typeAaaa)
                holdings_.addresses->push_back(addressText(data));
    for (const std::string& owner : owners)
        if (Status failed = findOtherTypes(exchange, owner, until); !failed.ok())
            return failed;
    for (const std::string& reverseZone : reverseZones_) {
        Status failed = findPointers(exchange, reverseZone, until);
        if (failed.code == errorBackendFailed)
            return failed;
        if (!failed.ok()) {
            holdings_.remarks.push_back("PTR records in " + reverseZone + " cannot be found: " + failed.reason);
            holdings_.incomplete = true;
        }
    }
    holdings_.remarks.emplace_back("names of other HTTPS ports below " + host_ +
                                   " are not listed, because a server does not list names; give such ports");
    return {};
}

Status ZoneHoldings::findSet(DnsExchange& exchange, ZoneSets& sets, const std::string& owner, std::uint16_t type,
                             std::chrono::milliseconds until) {
    const Answer answer = authoritative(exchange, owner, type, until);
    if (!answer.ok())
        return answer.status();
    RecordSet held{owner, type, answerRecords(**answer, owner, type)};
    const Result<bool> inZone = isInZone(exchange, sets.zone, held, until);
    if (!inZone.ok())
        return inZone.status();
    if (*inZone)
        keep(sets, std::move(held));
    return {};
}

//  Adds the records of held to holdings_. If one of them is ours, also adds held and our records of it to sets.
void ZoneHoldings::keep(ZoneSets& sets, RecordSet held) {
    RecordSet ours{held.owner, held.type, {}};
    for (const DnsBytes& data : held.records) {
        HeldRecord record{recordText(held.owner, held.type, data), whyItRemains(host_, held, data)};
        if (record.ours()) {
            ours.records.push_back(data);
            sets.texts.push_back(record.text);
        }
        holdings_.records.push_back(std::move(record));
    }
    if (!ours.records.empty()) {
        sets.held.push_back(std::move(held));
        sets.ours.push_back(std::move(ours));
    }
}

//  A server may answer a query of type ANY with only some of the types (RFC 8482). So the common types are queried,
//  too, but only at the name of the host. If the server refuses one of these queries, the next one follows.
Status ZoneHoldings::findOtherTypes(DnsExchange& exchange, const std::string& owner, std::chrono::milliseconds until) {
    std::set<std::uint16_t> types;
    std::vector<std::uint16_t> queries{typeAny};
    if (owner == host_)
        queries.insert(queries.end(), std::begin(commonTypes), std::end(commonTypes));
    for (const std::uint16_t query : queries) {
        if (types.contains(query))
            continue;
        const Answer answer = authoritative(exchange, owner, query, until);
        if (answer.ok())
            types.merge(typesIn(**answer, owner));
        else if (answer.status().code == errorBackendFailed)
            return answer.status();
    }
    for (const std::uint16_t type : types)
        if (type != typeAaaa && type != typeHttps)
            holdings_.records.push_back({recordText(owner, type, {}), otherType});
    return {};
}

//  Returns the names of the PTR records in reverseZone for all addresses in our AAAA records and in the hints of our
//  HTTPS records. The hints are needed if an earlier removal has deleted the AAAA records, but not all HTTPS records.
std::vector<std::string> ZoneHoldings::pointerNames(const std::string& reverseZone) const {
    std::set<std::string> names;
    const auto add = [&](std::span<const std::uint8_t> address) {
        if (std::string name = pointerName(address); zoneOfPointer(reverseZones_, name) == reverseZone)
            names.insert(std::move(name));
    };
    for (const RecordSet& set : forward_.ours) {
        for (const DnsBytes& data : set.records) {
            if (set.type == typeAaaa)
                add(data);
            else if (const auto record = parseOwnHttps(data))
                std::for_each(record->hints.begin(), record->hints.end(), add);
        }
    }
    return {names.begin(), names.end()};
}

Status ZoneHoldings::findPointers(DnsExchange& exchange, const std::string& reverseZone,
                                  std::chrono::milliseconds until) {
    ZoneSets sets{reverseZone, {}, {}, {}, {}};
    for (const std::string& name : pointerNames(reverseZone))
        if (Status failed = findSet(exchange, sets, name, typePtr, until); !failed.ok())
            return failed;
    reverse_.push_back(std::move(sets));
    return {};
}

//  The PTR records are removed first, because only the other records show their names. A refusal of a reverse zone does
//  not show that another server is responsible for the zone of the host, so failover is set to false.
Status ZoneHoldings::remove(DnsExchange& exchange, std::chrono::milliseconds until) {
    Status first;
    const auto update = [&](ZoneSets& sets) {
        const bool done = sets.ours.empty() || (sets.removal && sets.removal->ok());
        if (done || first.code == errorBackendFailed)
            return;
        sets.removal = removeFrom(exchange, sets, until);
        if (first.ok())
            first = *sets.removal;
    };
    std::for_each(reverse_.begin(), reverse_.end(), update);
    first.failover = false;
    update(forward_);
    return forward_.removal && !forward_.removal->ok() ? *forward_.removal : first;
}

std::vector<RemovalStep> ZoneHoldings::steps(const Status& status) const {
    std::vector<RemovalStep> found;
    const auto add = [&](const ZoneSets& sets) {
        if (!sets.ours.empty())
            found.push_back({sets.texts, sets.removal.value_or(status)});
    };
    std::for_each(reverse_.begin(), reverse_.end(), add);
    add(forward_);
    return found;
}

Status ZoneHoldings::removeFrom(DnsExchange& exchange, const ZoneSets& sets, std::chrono::milliseconds until) const {
    const Result<DnsBytes> message = removalMessage(newId(), sets.zone, sets.held, sets.ours);
    if (!message.ok())
        return message.status();
    const Answer answer = exchange.ask(*message, exchangeEnd(until));
    if (!answer.ok())
        return answer.status();
    const unsigned rcode = rcodeOf(**answer);
    if (rcode == rcodeNxRrset)
        return changedSince(sets.zone);
    return rcode == rcodeNoError ? verifyRemoval(exchange, sets, until) : refusedWith(rcode);
}

//  PowerDNS, for example, may store a record in another form than it shows. It then does not find the record to delete,
//  keeps the record, and answers without an error.
Status ZoneHoldings::verifyRemoval(DnsExchange& exchange, const ZoneSets& sets, std::chrono::milliseconds until) const {
    for (const RecordSet& set : sets.ours) {
        const Answer answer = authoritative(exchange, set.owner, set.type, until);
        if (!answer.ok())
            return answer.status();
        const std::vector<DnsBytes> left = answerRecords(**answer, set.owner, set.type);
        if (std::find_first_of(left.begin(), left.end(), set.records.begin(), set.records.end()) != left.end())
            return serverRefused("the server answers without an error, but still has a record of " + set.owner);
    }
    return {};
}

}  // namespace rdbopen
