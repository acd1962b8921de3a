//  What an error answer of a Redis server means, in words for the operator.
#ifndef RDBAPI_OPEN_REDIS_REFUSAL_H
#define RDBAPI_OPEN_REDIS_REFUSAL_H

#include <string>
#include <string_view>

namespace rdbopen {

//  Says whether the error answer means that the connection is of no use any more: the login is gone, or the server has
//  become a replica, so that another one has the name now or will have it.
bool redisEndsConnection(std::string_view answer);

//  Returns the reason why command was refused with the error answer. An answer without words of its own is quoted, at
//  most 120 bytes of it and printable ones only, when quote allows it: a server may repeat in it what it was sent, and
//  so the password of a login.
std::string redisRefusal(std::string_view command, std::string_view answer, bool quote);

}  // namespace rdbopen

#endif
