//  The messages that this library sends, before they are signed.
//
//      update (RFC 2136 section 2):
//      | id | opcode 5 | counts | zone SOA IN | no CNAME at owner 1 | ... | delete set 1 | delete set 2 ... |
//      add record 1 of set 1 | ...
//      prerequisite (RFC 2136 section 2.4.3), an update without changes:
//      | id | opcode 5 | counts | zone SOA IN | owner type NONE |
//      query (RFC 1035 section 4.1), with the maximum length of its answer over UDP (RFC 6891):
//      | id | opcode 0 | counts | owner type IN | OPT maxDatagramSize |
//
//  pointerMessage, removalMessage and questionMessage build updates with other contents.
//
//  Owner names are compressed (RFC 1035 section 4.1.4); names in the data of a record are not.
//
//  tsig.h signs the messages. ldns (1.8.3) is used to parse answers, names and base64, to compare names, and for the
//  texts of names and types. It is not used to write messages, because it aborts the process by an assertion if a
//  message is longer than 65535 bytes.
#ifndef RDBAPI_OPEN_DNS_MESSAGE_H
#define RDBAPI_OPEN_DNS_MESSAGE_H

#include "engine/status.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace rdbopen {

using DnsBytes = std::vector<std::uint8_t>;

inline constexpr std::uint16_t typeCname = 5;   // RFC 1035
inline constexpr std::uint16_t typeSoa = 6;     // RFC 1035
inline constexpr std::uint16_t typePtr = 12;    // RFC 1035
inline constexpr std::uint16_t typeAaaa = 28;   // RFC 3596
inline constexpr std::uint16_t typeHttps = 65;  // RFC 9460
inline constexpr std::uint16_t typeAny = 255;   // RFC 1035, in queries: all types

inline constexpr unsigned opcodeQuery = 0;
inline constexpr unsigned opcodeUpdate = 5;

//  Maximum length of a message over TCP in bytes (RFC 1035 section 4.2.2).
inline constexpr std::size_t maxDnsMessageSize = 65535;

//  Maximum length of an answer over UDP in bytes: 1280, the minimum MTU of IPv6 (RFC 8200 section 5), without the
//  headers of IPv6 and UDP. Datagrams of this length are not fragmented.
inline constexpr std::size_t maxDatagramSize = 1232;

//  Records of one owner and type.
struct RecordSet {
    std::string owner;  // in lower case; satisfies isDnsName in each message that is sent
    std::uint16_t type = 0;
    std::vector<DnsBytes> records;  // data of each record in wire format; names in it are lower case,
                                    // except in records from a server
};

//  Append a 16-bit number, or a name without compression. An empty name is the root.
void putDns16(DnsBytes& bytes, std::size_t number);
void putDnsName(DnsBytes& bytes, std::string_view name);

//  Returns the owners of all sets that have records, in order and without duplicates. Requires: the sets of one owner
//  are adjacent.
std::vector<std::string> ownersOfRecords(const std::vector<RecordSet>& sets);

//  Returns an update after which zone has exactly the records of sets for their owners and types. The update deletes
//  all sets, then adds their records. Fails with updateTooLong. Requires: the sets of one owner are adjacent.
//
//  The prerequisites of the update require that no name of ownersOfRecords is an alias (CNAME). If one is an alias, the
//  server answers YXRRSET and changes nothing. Without prerequisites, it would silently ignore records at an alias and
//  answer without an error (RFC 2136 section 3.4.2.2).
Result<DnsBytes> updateMessage(std::uint16_t id, const std::string& zone, std::uint32_t ttl,
                               const std::vector<RecordSet>& sets);

//  Returns an update of zone. At each name in the list removed, it deletes the PTR record with the data target; at each
//  name in the list added, it adds this record. It changes no other record. Its prerequisites require that no name in
//  the list added is an alias (CNAME). Fails with updateTooLong.
Result<DnsBytes> pointerMessage(std::uint16_t id, const std::string& zone, std::uint32_t ttl, const DnsBytes& target,
                                const std::vector<std::string>& removed, const std::vector<std::string>& added);

//  Returns an update of zone that deletes the records of removed[i] from the set held[i], for each i. Its prerequisites
//  (RFC 2136 section 2.4.2) require that the zone itself has exactly the sets in held; otherwise the server answers
//  NXRRSET and changes nothing. Fails with updateTooLong. Requires: held[i] and removed[i] have the same owner and
//  type, and each has records.
Result<DnsBytes> removalMessage(std::uint16_t id, const std::string& zone, const std::vector<RecordSet>& held,
                                const std::vector<RecordSet>& removed);

//  Returns an update that asks whether the key may delete the records of sets. Its prerequisite is that zone has no SOA
//  record. This is never true, so nothing is deleted, and a server that allows the deletion answers YXRRSET. Requires:
//  the records fit into one message. They must not exist, so that even a server that ignores prerequisites deletes
//  nothing.
DnsBytes questionMessage(std::uint16_t id, const std::string& zone, const std::vector<RecordSet>& sets);

//  Returns the failure of an update that would be longer than maxDnsMessageSize: errorBadRequest.
Status updateTooLong();

//  Returns an update without changes. It succeeds only if zone itself has no record with this owner and type.
DnsBytes absenceMessage(std::uint16_t id, const std::string& zone, const std::string& owner, std::uint16_t type);

//  Returns a query without recursion for the records with this owner and type.
DnsBytes queryMessage(std::uint16_t id, const std::string& owner, std::uint16_t type);

}  // namespace rdbopen

#endif
