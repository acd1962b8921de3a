//  The Lua scripts that a Redis server executes for the back end. No other client can change the keys during a script.
//  The sources are the files *.lua of this folder. The build joins the files of each script and computes the SHA-1
//  of the script.
#ifndef RDBAPI_OPEN_REDIS_SCRIPTS_H
#define RDBAPI_OPEN_REDIS_SCRIPTS_H

#include <string_view>

namespace rdbopen {

struct RedisScript {
    std::string_view operation;  // word for the script in reasons for the operator
    std::string_view hash;       // SHA-1 of source in hexadecimal: the name of the script in EVALSHA
    std::string_view source;
};

//  Each file describes its arguments and results: import.lua, put.lua, examine.lua, remove.lua.
extern const RedisScript redisImportScript;
extern const RedisScript redisPutScript;
extern const RedisScript redisClusterPutScript;  // for a node of a cluster
extern const RedisScript redisExamineScript;
extern const RedisScript redisRemoveScript;

}  // namespace rdbopen

#endif
