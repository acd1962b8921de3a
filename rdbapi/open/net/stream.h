//  A connection of a back end to its server, which carries bytes in both directions: plain (tcp_stream.h) or encrypted
//  (tls_stream.h). Every wait is a Waiter::wait. It ends at the given time, or earlier, for example when the handle is
//  closed.
//
//  Every failure has the code errorBackendFailed. Afterwards only descriptor, endedByServer, connect and close may be
//  called.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_NET_STREAM_H
#define RDBAPI_OPEN_NET_STREAM_H

#include "engine/status.h"
#include "engine/waiter.h"
#include "net/url.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <sys/socket.h>

namespace rdbopen {

struct ServerAddress {
    sockaddr_storage bytes;
    socklen_t length;
    Server server;  // the server with this address, as the url or another server names it; empty for a Unix socket
};

//  Returns the address of a Unix socket, or nothing if path is longer than 107 bytes (unix(7)). Requires: path is
//  absolute.
std::optional<ServerAddress> socketAddress(std::string_view path);

class Stream {
public:
    Stream() = default;
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    virtual ~Stream() = default;

    //  Closes the current connection, if there is one, and connects to address.
    virtual Status connect(const ServerAddress& address, const Waiter& waiter, std::chrono::milliseconds until) = 0;

    virtual Status send(std::span<const std::uint8_t> bytes, const Waiter& waiter, std::chrono::milliseconds until) = 0;

    //  Takes bytes that have arrived, without waiting. Returns their number, or 0 if there are none.
    //  Requires: the span has room for maxInput bytes. Otherwise bytes could remain in the object, and poll(2) would
    //  not report them.
    virtual Result<std::size_t> take(std::span<std::uint8_t> bytes) = 0;

    //  Waits until take may return bytes. Requires: the last take returned 0.
    virtual Status waitForInput(const Waiter& waiter, std::chrono::milliseconds until) = 0;

    //  Receives exactly bytes.size() bytes.
    virtual Status receive(std::span<std::uint8_t> bytes, const Waiter& waiter, std::chrono::milliseconds until) = 0;

    //  Returns whether the last failure of take or receive means that the server ended the connection.
    virtual bool endedByServer() const noexcept = 0;

    //  Returns the descriptor of the socket, which is non-blocking and close-on-exec; -1 if not connected.
    virtual int descriptor() const noexcept = 0;

    virtual void close() noexcept = 0;

    //  The maximum number of data bytes in one TLS record (RFC 8446 section 5.1).
    static constexpr std::size_t maxInput = 16384;
};

//  Returns the failure for a wait whose result is not Waiter::Result::ready. Requires: errno is as the wait has set it.
Status waitFailure(Waiter::Result result);

//  Returns the failure for an operation that does not begin because Waiter::cancelled returned true.
Status cancelledFailure();

//  Waits as Waiter::wait does. Returns ok when descriptor is ready, else waitFailure.
Status waitUntilReady(int descriptor, short events, const Waiter& waiter, std::chrono::milliseconds until);

}  // namespace rdbopen

#endif
