#include "net/stream.h"

#include <cerrno>
#include <cstring>
#include <sys/un.h>

namespace rdbopen {

std::optional<ServerAddress> socketAddress(std::string_view path) {
    sockaddr_un place{};
    if (path.size() >= sizeof place.sun_path)
        return std::nullopt;
    place.sun_family = AF_UNIX;
    path.copy(place.sun_path, path.size());
    ServerAddress address{};
    address.length = sizeof place;
    std::memcpy(&address.bytes, &place, sizeof place);
    return address;
}

Status waitFailure(Waiter::Result result) {
    if (result == Waiter::Result::timedOut)
        return backendFailed("the server does not answer in time");
    if (result == Waiter::Result::callWaits)
        return backendFailed("a call waits");
    if (result == Waiter::Result::closed)
        return backendFailed("the handle was closed");
    return failedTo("cannot wait", systemFailure(errno));
}

Status cancelledFailure() {
    return backendFailed("the handle was closed, or a call waits or has timed out");
}

Status waitUntilReady(int descriptor, short events, const Waiter& waiter, std::chrono::milliseconds until) {
    const Waiter::Result result = waiter.wait(descriptor, events, until);
    return result == Waiter::Result::ready ? Status{} : waitFailure(result);
}

}  // namespace rdbopen
