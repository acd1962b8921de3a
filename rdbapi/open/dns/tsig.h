//  Signatures of messages with a secret that both sides share (TSIG, RFC 8945).
//
//  How far an answer is trusted:
//
//      ok                    signed with the key over the request's signature, in time, without an error
//      errorServerRefused    the server does not accept the request's signature; the reason has its words. Of unsigned
//                            answers only BADKEY and BADSIG are refusals (RFC 8945 section 5.3.2): a server without the
//                            key cannot sign
//      errorBackendFailed    everything else: nothing in it counts, whatever it says
//
//  The records of an answer are not looked into before its signature is found right.
//
//  This is done with OpenSSL's HMAC: ldns (1.8.3) does not sign with hmac-sha384, takes the time of signing itself, and
//  does not hand on what a server says with BADTIME.
//
//  Threads: any, as long as each object is used by one at a time.
#ifndef RDBAPI_OPEN_DNS_TSIG_H
#define RDBAPI_OPEN_DNS_TSIG_H

#include "dns/answer.h"
#include "engine/status.h"

namespace rdbopen {

//  How far the clocks of both sides may be apart, as RFC 8945 section 10 recommends.
inline constexpr std::uint16_t tsigFudge = 300;  // s

struct TsigKey {
    std::string name;       // isDnsName, lower case
    std::string algorithm;  // isTsigAlgorithm
    std::string secret;     // base64 (RFC 4648 section 4)
};

//  Says whether name is one of hmac-sha1, hmac-sha256, hmac-sha384 and hmac-sha512 (RFC 8945 section 6).
bool isTsigAlgorithm(std::string_view name);

//  Says whether secret is base64 of at least one byte.
bool isTsigSecret(const std::string& secret);

//  A message ready to be sent, and what is needed to know its answer.
struct SignedRequest {
    DnsBytes wire;
    std::uint16_t id = 0;
    std::uint8_t opcode = 0;
    DnsBytes mac;           // its length in front
    std::int64_t time = 0;  // s since 1970-01-01 UTC, as signed
};

//  Returns by how many bytes a message grows when it is signed.
std::size_t signatureLength(const TsigKey& key);

//  Signs message, which has no signature yet, with the time now: s since 1970-01-01 UTC.
Result<SignedRequest> signRequest(DnsBytes message, const TsigKey& key, std::int64_t now);

//  A verified answer. A failure has failover set when its code is isWrongServer, however far it is trusted: to try
//  another address does no harm.
using Answer = Result<Packet>;

//  Verifies message as the answer to request. now: s since 1970-01-01 UTC.
Answer readAnswer(std::span<const std::uint8_t> message, const SignedRequest& request, const TsigKey& key,
                  std::int64_t now);

}  // namespace rdbopen

#endif
