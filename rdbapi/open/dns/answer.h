//  Reads the contents of an answer. The answer comes from a DNS server and its signature was verified (tsig.h), or it
//  comes from the system's resolver and is not signed (primary.h).
//
//  Threads: one thread at a time per answer.
#ifndef RDBAPI_OPEN_DNS_ANSWER_H
#define RDBAPI_OPEN_DNS_ANSWER_H

#include "dns/message.h"

#include <memory>
#include <span>
#include <stdbool.h>  // otherwise ldns defines bool, true and false as macros

#include <ldns/ldns.h>

namespace rdbopen {

struct FreePacket {
    void operator()(ldns_pkt* packet) const { ldns_pkt_free(packet); }
};
using Packet = std::unique_ptr<ldns_pkt, FreePacket>;

//  Parses message. Fails with errorBackendFailed when it is malformed. Bytes after its end are ignored.
Result<Packet> parseMessage(std::span<const std::uint8_t> message);

//  Returns the response code of packet, including its extension (RFC 6891 section 6.1.3).
unsigned rcodeOf(const ldns_pkt& packet);

//  Returns the data of all records of packet's answer section with this owner and type, in wire format.
std::vector<DnsBytes> answerRecords(const ldns_pkt& packet, const std::string& owner, std::uint16_t type);

//  Returns the first record of packet's answer section with this owner and type, or null. packet owns it.
const ldns_rr* findRecord(const ldns_pkt& packet, const std::string& owner, std::uint16_t type);

//  Returns whether packet's answer section has a record with this owner and type.
bool answerHas(const ldns_pkt& packet, const std::string& owner, std::uint16_t type);

//  Returns whether packet's answer section has, for owner and type of set, exactly the records of set, in any order.
//  Times to live are not compared, because a server may limit them.
bool answerHolds(const ldns_pkt& packet, const RecordSet& set);

//  Like answerHolds, for the additional section. Returns false for an empty set, because a server may leave out records
//  in this section.
bool additionalHolds(const ldns_pkt& packet, const RecordSet& set);

}  // namespace rdbopen

#endif
