//  What an error answer of a Redis server means, in words for the operator.
#ifndef RDBAPI_OPEN_REDIS_REFUSAL_H
#define RDBAPI_OPEN_REDIS_REFUSAL_H

#include <span>
#include <string>
#include <string_view>

namespace rdbopen {

//  Says whether the error answer means that the connection is of no use any more: the login is gone, or the server has
//  become a replica, so that another one has the name now or will have it.
bool redisEndsConnection(std::string_view answer);

//  Says whether the error answer means that another server may do what this one does not now.
bool redisIsWrongServer(std::string_view answer);

//  Returns how many leading bytes of an error answer may be quoted: those up to the first 4 in a row that also occur in one
//  of secrets, in upper or lower case. A shorter secret counts as a whole. A server or a proxy may repeat what it was sent,
//  complete or cut off, and so the login. Bytes beyond the length of a quote count as secret.
std::size_t redisQuotable(std::string_view answer, std::span<const std::string> secrets);

//  Returns the reason why command was refused with the error answer. An answer without words of its own is quoted, at
//  most 120 bytes of its first quotable ones, printable ones only.
std::string redisRefusal(std::string_view command, std::string_view answer, std::size_t quotable);

}  // namespace rdbopen

#endif
