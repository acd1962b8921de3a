//  What an answer says, once it is known to be genuine (tsig.h).
//
//  Threads: one at a time for each answer.
#ifndef RDBAPI_OPEN_DNS_ANSWER_H
#define RDBAPI_OPEN_DNS_ANSWER_H

#include "dns/message.h"

#include <memory>
#include <span>
#include <stdbool.h>  // else ldns makes bool, true and false macros

#include <ldns/ldns.h>

namespace rdbopen {

struct FreePacket {
    void operator()(ldns_pkt* packet) const { ldns_pkt_free(packet); }
};
using Packet = std::unique_ptr<ldns_pkt, FreePacket>;

//  Returns message taken apart, or null when it cannot be. Bytes behind its end are passed over.
Packet parseMessage(std::span<const std::uint8_t> message);

//  Returns the code of packet's header with its extension (RFC 6891 section 6.1.3).
unsigned rcodeOf(const ldns_pkt& packet);

//  Says whether packet's answer section has a record of owner and type.
bool answerHas(const ldns_pkt& packet, const std::string& owner, std::uint16_t type);

//  Says whether packet's answer section holds exactly the records of set, in any order. Times to live are not compared: a
//  server may bound them.
bool answerHolds(const ldns_pkt& packet, const RecordSet& set);

}  // namespace rdbopen

#endif
