//  One TCP connection of a back end. Every wait ends at a given time or when the handle is closed.
//
//  Every failure is errorBackendFailed: the connection cannot be used afterwards.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_NET_TCP_STREAM_H
#define RDBAPI_OPEN_NET_TCP_STREAM_H

#include "engine/status.h"
#include "engine/waiter.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <sys/socket.h>

namespace rdbopen {

struct ServerAddress {
    sockaddr_storage bytes;
    socklen_t length;
};

class TcpStream {
public:
    TcpStream() = default;
    TcpStream(const TcpStream&) = delete;
    TcpStream& operator=(const TcpStream&) = delete;
    ~TcpStream() { close(); }

    //  Closes the current connection and connects to address.
    Status connect(const ServerAddress& address, const Waiter& waiter, std::chrono::milliseconds until);

    Status send(std::span<const std::uint8_t> bytes, const Waiter& waiter, std::chrono::milliseconds until);

    //  Fills bytes completely.
    Status receive(std::span<std::uint8_t> bytes, const Waiter& waiter, std::chrono::milliseconds until);

    //  The descriptor, non-blocking and closed on exec; -1 if none.
    int descriptor() const noexcept { return descriptor_; }

    void close() noexcept;

private:
    Status open(const ServerAddress& address, const Waiter& waiter, std::chrono::milliseconds until);

    int descriptor_ = -1;
};

//  Returns the failure for a wait that did not end with Waiter::Result::ready. Requires: errno is that of the wait.
Status waitFailure(Waiter::Result result);

}  // namespace rdbopen

#endif
