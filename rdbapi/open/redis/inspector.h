//  Queries and removes what a Redis server stores for one name (engine/inspector.h). The queries use only commands that
//  the service's user is allowed anyway, and LLEN, which the server may refuse. The removal also needs DEL.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_REDIS_INSPECTOR_H
#define RDBAPI_OPEN_REDIS_INSPECTOR_H

#include "engine/inspector.h"
#include "redis/objects.h"
#include "redis/route.h"

namespace rdbopen {

class RedisInspector final : public Inspector {
public:
    //  isCluster: the servers are nodes of a cluster. Requires: route outlives the object.
    RedisInspector(RedisRoute& route, RedisLimits limits, bool isCluster)
        : route_(route), limits_(limits), isCluster_(isCluster) {}

    Status openToRead(const Waiter& waiter) override;
    Result<Holdings> held(const HostNames& host) override;
    Status examine(const HostNames& host, std::vector<Examination>& results) override;
    Status remove(std::vector<RemovalStep>& steps) override;

private:
    Result<RedisReply> ask(const RedisCommand& command);
    Result<bool> findKey(const std::string& key, const char* type);
    Status findTag();
    Status findValue();
    Status findHistory();
    void add(const std::string& key, const std::string& contents, bool isForeign);
    void keepAllBesideForeignKeys();
    Status removeShown();
    Status resultOfExamination(const RedisReply& reply) const;

    RedisRoute& route_;
    const RedisLimits limits_;
    const bool isCluster_;
    std::chrono::milliseconds until_{0};  // time limit of the current operation
    std::string name_;                    // name of the last call of held; the next two members are its results
    std::optional<RedisValue> value_;
    Holdings holdings_;
};

}  // namespace rdbopen

#endif
