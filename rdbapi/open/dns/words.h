//  Texts for the operator that explain a server's error codes.
#ifndef RDBAPI_OPEN_DNS_WORDS_H
#define RDBAPI_OPEN_DNS_WORDS_H

#include <cstdint>
#include <string>

namespace rdbopen {

//  Response codes in a message's header (RFC 1035 section 4.1.1, RFC 2136 section 2.2) and error codes of a signature
//  (RFC 8945 section 3).
inline constexpr unsigned rcodeNoError = 0;
inline constexpr unsigned rcodeNxDomain = 3;
inline constexpr unsigned rcodeNotImp = 4;
inline constexpr unsigned rcodeRefused = 5;
inline constexpr unsigned rcodeYxRrset = 7;
inline constexpr unsigned rcodeNotAuth = 9;
inline constexpr unsigned tsigBadSig = 16;
inline constexpr unsigned tsigBadKey = 17;
inline constexpr unsigned tsigBadTime = 18;
inline constexpr unsigned tsigBadTrunc = 22;

//  Returns whether an answer with this code may come from a wrong server, so that a server at another address may
//  accept the request.
bool isWrongServer(unsigned rcode);

//  Return the text for a code other than 0.
std::string rcodeWords(unsigned rcode);
std::string tsigErrorWords(unsigned error);

//  Returns the text for an answer without a signature; rcode may be rcodeNoError.
std::string unsignedWords(unsigned rcode);

//  Returns the text for an alias (CNAME) that prevents other records at owner.
std::string aliasWords(const std::string& owner);

//  Returns the text for BADTIME. ahead: number of seconds by which the server's clock is ahead of this host's; may be
//  negative; 0 if it is unknown.
std::string badTimeWords(std::int64_t ahead);

}  // namespace rdbopen

#endif
