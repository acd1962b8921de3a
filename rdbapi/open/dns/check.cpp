#include "dns/check.h"

#include "dns/words.h"
#include "engine/clock.h"

#include <algorithm>
#include <stdlib.h>

namespace rdbopen {

namespace {

DnsBytes queryFor(const RecordSet& set) {
    return queryMessage(newId(), set.owner, set.type);
}

}  // namespace

std::uint16_t newId() {
    return static_cast<std::uint16_t>(arc4random());
}

std::chrono::milliseconds exchangeEnd(std::chrono::milliseconds until) {
    return std::min(until, monotonicNow() + exchangeLimit);
}

Status refusedWith(unsigned rcode) {
    return {errorServerRefused, rcodeWords(rcode), isWrongServer(rcode)};
}

Status wrongServer(std::string reason) {
    return {errorServerRefused, std::move(reason), true};
}

//  An answer to a query may contain an alias that the server synthesises from a wildcard (RFC 4592). Such an alias does
//  not prevent records. So this function sends an update with a prerequisite, which the server tests against the zone
//  itself.
Status checkAlias(DnsExchange& exchange, const std::string& zone, const std::string& owner,
                  std::chrono::milliseconds until) {
    const Answer answer = exchange.ask(absenceMessage(newId(), zone, owner, typeCname), exchangeEnd(until));
    if (!answer.ok())
        return answer.status();
    return rcodeOf(**answer) == rcodeYxRrset ? serverRefused(aliasWords(owner)) : Status{errorNotHeld, {}};
}

ZoneCheck::ZoneCheck(const std::string& zone, const std::vector<RecordSet>& sets)
    : zone_(zone), sets_(sets), first_(queryFor(sets[1])) {}

Status ZoneCheck::run(DnsExchange& exchange, std::chrono::milliseconds until) const {
    bool seen = false;  // the additional section of an answer had exactly the AAAA records
    for (std::size_t i = 1; i < sets_.size(); ++i) {
        const Answer answer = exchange.ask(i == 1 ? first_ : queryFor(sets_[i]), exchangeEnd(until));
        if (Status status = checkSet(exchange, sets_[i], answer, until); !status.ok())
            return status;
        seen = seen || additionalHolds(**answer, sets_[0]);
    }
    return seen ? Status{} : checkSet(exchange, sets_[0], exchange.ask(queryFor(sets_[0]), exchangeEnd(until)), until);
}

//  An alias (CNAME) at the name prevents other records there, which matters only if the set has records.
Status ZoneCheck::checkSet(DnsExchange& exchange, const RecordSet& set, const Answer& answer,
                           std::chrono::milliseconds until) const {
    if (!answer.ok())
        return answer.status();
    const unsigned rcode = rcodeOf(**answer);
    if (rcode != rcodeNoError && rcode != rcodeNxDomain)
        return refusedWith(rcode);
    if (!ldns_pkt_aa(answer->get()))
        return wrongServer("the server is not authoritative for " + set.owner);
    if (!set.records.empty() && answerHas(**answer, set.owner, typeCname))
        return checkAlias(exchange, zone_, set.owner, until);
    if (answerHolds(**answer, set))
        return {};
    return set.records.empty() ? checkAbsence(exchange, set, until) : Status{errorNotHeld, {}};
}

//  Returns errorNotHeld if the zone itself may have a record with set's owner and type. Records in the answer to a
//  query may come from a wildcard, so this function sends an update with a prerequisite. Each response code other than
//  0 gives errorNotHeld, also that of a server that does not support prerequisites. The worker then sends the request
//  again, which is harmless.
Status ZoneCheck::checkAbsence(DnsExchange& exchange, const RecordSet& set, std::chrono::milliseconds until) const {
    const Answer answer = exchange.ask(absenceMessage(newId(), zone_, set.owner, set.type), exchangeEnd(until));
    if (!answer.ok())
        return answer.status();
    return rcodeOf(**answer) == rcodeNoError ? Status{} : Status{errorNotHeld, {}};
}

}  // namespace rdbopen
