//  Tries servers in turn until one serves, and reports why the others do not.
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

//  Tries a server until the given time. The reason of a failure begins with the host and port of this server, or of the
//  master that it names.
using ServerAttempt = std::function<Status(const Server&, std::chrono::milliseconds)>;

//  Returns ok as soon as an attempt does. Each server gets an equal share of the remaining time, as the addresses of a
//  name do (server_addresses.h), but at least 500 ms, if so much remains. Otherwise returns errorBackendFailed with the
//  first reasons. Ends early when waiter is cancelled.
Status tryInTurn(const std::vector<Server>& servers, const Waiter& waiter, std::chrono::milliseconds until,
                 const ServerAttempt& attempt);

}  // namespace rdbopen

#endif
