//  Finds the signature of a message without parsing the data of its records, and compares questions. These functions
//  are suitable for messages that are not verified yet: they read a message once, follow no compression pointer and
//  allocate no memory.
//
//      | header | questions | answers | authority | additional ... | signature |
//                                                                              ^ must be the end of the message
#ifndef RDBAPI_OPEN_DNS_LAYOUT_H
#define RDBAPI_OPEN_DNS_LAYOUT_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace rdbopen {

inline constexpr std::size_t dnsHeaderLength = 12;  // RFC 1035 section 4.1.1

enum class DnsLayout {
    malformed,     // the message ends too early, or continues after its last record; or a name has a label of an
                   // unknown kind; or a signature breaks a rule: it must be the last record of the additional section
                   // and the only signature (RFC 8945 section 5.1), and must have class ANY and ttl 0 (section 4.2)
    bare,          // the message has no signature
    hasSignature,  // the last record of the message is a signature
};

//  Offsets of a signature in its message. The signature's data extends to the end of the message.
struct SignaturePlace {
    std::size_t owner = 0;
    std::size_t data = 0;
};

//  Returns the layout of message. place is valid only after DnsLayout::hasSignature.
DnsLayout layoutOf(std::span<const std::uint8_t> message, SignaturePlace& place);

//  Returns whether answer has the same question as request, and no other question. The case of letters may differ.
//  Requires: both have a header; a function of message.h has built request.
bool hasQuestionOf(std::span<const std::uint8_t> answer, std::span<const std::uint8_t> request);

inline unsigned readDns16(const std::uint8_t* bytes) {
    return static_cast<unsigned>(bytes[0]) << 8 | bytes[1];
}

}  // namespace rdbopen

#endif
