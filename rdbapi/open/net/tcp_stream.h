//  One connection of a back end: TCP, or a Unix socket if the address is one. This class does not encrypt; tls_stream.h
//  uses it for encrypted bytes. If the server of a Unix socket accepts connections too slowly, further connections fail
//  with EAGAIN.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_NET_TCP_STREAM_H
#define RDBAPI_OPEN_NET_TCP_STREAM_H

#include "net/stream.h"

namespace rdbopen {

class TcpStream final : public Stream {
public:
    ~TcpStream() override { close(); }

    Status connect(const ServerAddress& address, const Waiter& waiter, std::chrono::milliseconds until) override;
    Status send(std::span<const std::uint8_t> bytes, const Waiter& waiter, std::chrono::milliseconds until) override;
    Result<std::size_t> take(std::span<std::uint8_t> bytes) override;
    Status waitForInput(const Waiter& waiter, std::chrono::milliseconds until) override;
    Status receive(std::span<std::uint8_t> bytes, const Waiter& waiter, std::chrono::milliseconds until) override;
    bool endedByServer() const noexcept override { return ended_; }
    int descriptor() const noexcept override { return descriptor_; }

    //  Closes the connection. Over TCP, also discards the bytes that the server has not confirmed. The kernel would
    //  otherwise send these bytes when the network works again, and an old request could overwrite a newer one.
    void close() noexcept override;

    //  Returns whether some bytes are not yet confirmed by the server.
    bool hasUnconfirmed() const noexcept;

    //  Like close, but lets the kernel send the last bytes.
    void finish() noexcept;

private:
    Status open(const ServerAddress& address, const Waiter& waiter, std::chrono::milliseconds until);

    int descriptor_ = -1;
    bool ended_ = false;
};

}  // namespace rdbopen

#endif
