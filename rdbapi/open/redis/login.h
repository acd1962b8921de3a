//  Sends the first commands on a connection to a Redis server. They log in, set the name of the connection and test it.
//  If needed, they also select the database and query the server's role. None of them is sent to a Sentinel.
//
//  Threads: any thread may call these functions.
#ifndef RDBAPI_OPEN_REDIS_LOGIN_H
#define RDBAPI_OPEN_REDIS_LOGIN_H

#include "redis/connection.h"

#include <cstdint>
#include <string>

namespace rdbopen {

struct RedisLogin {
    std::string user;
    std::string password;  // the password, not the name of its file
    std::uint32_t database = 0;
    bool primaryOnly = false;  // the login fails at a replica
};

//  Logs in on a new connection. Every failure has the code errorBackendFailed.
Status logInToRedis(RedisConnection& connection, const RedisLogin& login, const Waiter& waiter,
                    std::chrono::milliseconds until);

}  // namespace rdbopen

#endif
