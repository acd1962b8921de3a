//  Interprets the error answers of a Redis server and returns reasons for the operator.
//
//  The answer to a script in which a command failed has other text around the error of this command:
//
//      from Redis 7 on    OOM command not allowed ... script: HASH, on @user_script:12.
//      Redis 5 and 6      ERR Error running script (call to f_HASH): @user_script:12: @user_script: 12: -OOM ...
//
//  All functions except redisQuotable and redisPrintable interpret such an answer as the error that it contains.
#ifndef RDBAPI_OPEN_REDIS_REFUSAL_H
#define RDBAPI_OPEN_REDIS_REFUSAL_H

#include <span>
#include <string>
#include <string_view>

namespace rdbopen {

//  Returns whether the error answer means that the connection cannot be used any more. Either its login is no longer
//  valid, or the server is a replica: the name may then resolve to another server.
bool redisEndsConnection(std::string_view answer);

//  Returns whether the error answer means that another server may be able to execute the command.
bool redisIsWrongServer(std::string_view answer);

//  Returns whether the error answer means that the server takes no writes at present, because of its memory or disk or
//  because too few replicas are connected.
bool redisTakesNoWrites(std::string_view answer);

//  Returns whether the error answer means that a cluster is being changed or is down, and the same command may succeed
//  soon.
bool redisStalls(std::string_view answer);

//  Returns how many leading bytes of an error answer may be quoted. A server or a proxy may repeat parts of the login
//  in the answer. Therefore the quotable part ends before the first 4 consecutive bytes that also occur in one of
//  secrets, ignoring case. A secret of less than 4 bytes ends the quotable part only if the whole secret occurs. At
//  most the first 284 bytes are quotable: enough for a quote and for the text around the error of a script.
std::size_t redisQuotable(std::string_view answer, std::span<const std::string> secrets);

//  Returns at most the first 120 bytes of text, with "?" for bytes that are not printable.
std::string redisPrintable(std::string_view text);

//  Returns the reason why command was refused with the error answer. An unknown answer is quoted: at most its first 120
//  quotable bytes, with "?" for bytes that are not printable.
std::string redisRefusal(std::string_view command, std::string_view answer, std::size_t quotable);

}  // namespace rdbopen

#endif
