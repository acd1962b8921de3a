//  One TCP connection of a back end. Every wait ends at a given time or when the handle is closed.
//
//  Every failure has the code errorBackendFailed. Afterwards the connection cannot be used.
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

    //  Receives exactly bytes.size() bytes.
    Status receive(std::span<std::uint8_t> bytes, const Waiter& waiter, std::chrono::milliseconds until);

    //  Returns the descriptor of the socket, which is non-blocking and close-on-exec; -1 if not connected.
    int descriptor() const noexcept { return descriptor_; }

    void close() noexcept;

private:
    Status open(const ServerAddress& address, const Waiter& waiter, std::chrono::milliseconds until);

    int descriptor_ = -1;
};

//  Returns the failure for a wait whose result is not Waiter::Result::ready. Requires: errno is as the wait has set it.
Status waitFailure(Waiter::Result result);

}  // namespace rdbopen

#endif
