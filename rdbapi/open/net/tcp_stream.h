//  One TCP connection of a back end. Every wait ends at a given time or when the handle is closed.
//
//  Failures are texts for the operator; an empty text is success. After a failure the connection is of no use.
//
//  Threads: one at a time.
#ifndef RDBAPI_OPEN_NET_TCP_STREAM_H
#define RDBAPI_OPEN_NET_TCP_STREAM_H

#include "engine/waiter.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
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

    //  Closes the connection that there is, and makes one to address.
    std::string connect(const ServerAddress& address, const Waiter& waiter, std::chrono::milliseconds until);

    std::string send(std::span<const std::uint8_t> bytes, const Waiter& waiter, std::chrono::milliseconds until);

    //  Fills bytes completely.
    std::string receive(std::span<std::uint8_t> bytes, const Waiter& waiter, std::chrono::milliseconds until);

    //  The descriptor, non-blocking and closed on exec; -1 when there is none.
    int descriptor() const noexcept { return descriptor_; }

    void close() noexcept;

private:
    std::string open(const ServerAddress& address, const Waiter& waiter, std::chrono::milliseconds until);

    int descriptor_ = -1;
};

//  The text for the end of a wait that was not Waiter::Result::ready.
std::string waitFailure(Waiter::Result result);

}  // namespace rdbopen

#endif
