//  Tries servers in turn until an attempt succeeds. If all attempts fail, reports the reasons.
//
//  Threads: any thread may call these functions.
#ifndef RDBAPI_OPEN_REDIS_TURNS_H
#define RDBAPI_OPEN_REDIS_TURNS_H

#include "engine/status.h"
#include "engine/waiter.h"
#include "net/url.h"

#include <chrono>
#include <functional>
#include <vector>

namespace rdbopen {

//  Tries a server until the given time. The reason of a failure begins with the host and port of this server, or of a
//  master that this server has named.
using ServerAttempt = std::function<Status(const Server&, std::chrono::milliseconds)>;

//  Calls attempt for one server after the other. Returns ok as soon as an attempt succeeds. Each server gets an equal
//  share of the remaining time, but at least 500 ms if 500 ms remain. If no attempt succeeds, returns
//  errorBackendFailed with the first 4 different reasons. Ends early when waiter is cancelled.
Status tryInTurn(const std::vector<Server>& servers, const Waiter& waiter, std::chrono::milliseconds until,
                 const ServerAttempt& attempt);

}  // namespace rdbopen

#endif
