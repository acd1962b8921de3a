//  Converts records in wire format to texts for the operator, and parses HTTPS records in the form that this library
//  writes (records.h).
//
//  Threads: any thread may call these functions.
#ifndef RDBAPI_OPEN_DNS_RECORD_TEXT_H
#define RDBAPI_OPEN_DNS_RECORD_TEXT_H

#include "dns/message.h"
#include "net/local_addresses.h"

#include <span>

namespace rdbopen {

//  The parts of an HTTPS record that this library could have written.
struct OwnHttps {
    unsigned priority = 0;  // never 0
    std::string target;     // empty for "."
    unsigned port = 0;      // 0: the record has no port
    std::vector<Ipv6Address> hints;
};

//  Parses the data of an HTTPS record. Returns nothing if it is malformed, has priority 0, has no ipv6hint, or has any
//  parameter except port and ipv6hint: this library writes no such record.
std::optional<OwnHttps> parseOwnHttps(std::span<const std::uint8_t> data);

//  Returns the text of an address. Requires: address has 16 bytes.
std::string addressText(std::span<const std::uint8_t> address);

//  Returns the name in the data of a PTR record, or nothing if it is malformed.
std::optional<std::string> pointerTarget(std::span<const std::uint8_t> data);

//  Returns "OWNER TYPE DATA" for valid AAAA and PTR records and for HTTPS records that parseOwnHttps accepts; otherwise
//  "OWNER TYPE".
std::string recordText(const std::string& owner, std::uint16_t type, std::span<const std::uint8_t> data);

}  // namespace rdbopen

#endif
