//  Signs messages and verifies answers with a secret that server and client share (TSIG, RFC 8945).
//
//  Results of verifying an answer:
//
//      ok                    the answer is authentic: signed with the key, for this request, in time; its signature
//                            reports no error
//      errorServerRefused    the server does not accept the request's signature; the reason describes the error code in
//                            the answer. A server without the key cannot sign, so an answer without a MAC is also such
//                            a refusal if it is NOTAUTH and its code is BADKEY or BADSIG (RFC 8945 section 5.3.2)
//      errorBackendFailed    any other answer; its records are ignored
//
//  The records of an answer are parsed only after its signature has been verified.
//
//  The MAC is computed with Nettle. ldns (1.8.3) does not support hmac-sha384, chooses the time of signing itself, and
//  does not return the server's time in a BADTIME answer. ldns also loads OpenSSL. The back end does not compute the
//  MAC with OpenSSL, because the first HMAC of OpenSSL would initialise it: read its configuration, register a clean-up
//  at exit, and use 2.2 MB of memory instead of Nettle's 0.3 MB.
//
//  Threads: any; one thread at a time per object.
#ifndef RDBAPI_OPEN_DNS_TSIG_H
#define RDBAPI_OPEN_DNS_TSIG_H

#include "dns/answer.h"
#include "engine/status.h"

namespace rdbopen {

//  Maximum difference between the clocks of server and client, as RFC 8945 section 10 recommends.
inline constexpr std::uint16_t tsigFudge = 300;  // s

struct TsigKey {
    std::string name;       // satisfies isDnsName; in lower case
    std::string algorithm;  // satisfies isTsigAlgorithm
    std::string secret;     // base64 (RFC 4648 section 4)
};

//  Returns whether name is one of hmac-sha1, hmac-sha256, hmac-sha384 and hmac-sha512 (RFC 8945 section 6).
bool isTsigAlgorithm(std::string_view name);

//  Returns whether secret is base64 of at least one byte.
bool isTsigSecret(const std::string& secret);

//  A signed message, and the data needed to verify its answer.
struct SignedRequest {
    DnsBytes wire;
    std::uint16_t id = 0;
    std::uint8_t opcode = 0;
    DnsBytes mac;           // MAC of the request, preceded by its length
    std::int64_t time = 0;  // s since 1970-01-01 UTC, as signed
};

//  Returns the number of bytes that a signature adds to a message.
std::size_t signatureLength(const TsigKey& key);

//  Signs message, which must have no signature. now: the time of signing, in s since 1970-01-01 UTC.
Result<SignedRequest> signRequest(DnsBytes message, const TsigKey& key, std::int64_t now);

//  A verified answer, or a failure. readAnswer sets the member failover of a failure if three conditions are met: the
//  answer is not truncated, its header belongs to the request, and isWrongServer is true for its response code. The
//  answer need not be authentic, because trying another address is harmless.
using Answer = Result<Packet>;

//  Verifies message as the answer to request. now: s since 1970-01-01 UTC. Fails if the message is truncated (TC).
Answer readAnswer(std::span<const std::uint8_t> message, const SignedRequest& request, const TsigKey& key,
                  std::int64_t now);

//  Like readAnswer, for a message that arrived as a datagram: it may be truncated, and must have the question of
//  request; `failover` of a failure is never set.
Answer readDatagram(std::span<const std::uint8_t> message, const SignedRequest& request, const TsigKey& key,
                    std::int64_t now);

}  // namespace rdbopen

#endif
