//  Requests to one address of a DNS server over UDP. Anyone can send datagrams, so only an authentic answer counts; any
//  other datagram is ignored, and the wait continues until the time limit. The socket is connected, so the kernel drops
//  datagrams from other addresses. The kernel also chooses a random source port (RFC 6056).
//
//      ask:   send --- 1 s without an answer --- send again --- 1 s --- no answer: the caller uses TCP
//
//  Each of the two waits takes at most a quarter of the remaining time, so that TCP has the rest.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_DNS_DATAGRAM_H
#define RDBAPI_OPEN_DNS_DATAGRAM_H

#include "dns/tsig.h"
#include "net/stream.h"

namespace rdbopen {

class DatagramSocket {
public:
    DatagramSocket() = default;
    DatagramSocket(const DatagramSocket&) = delete;
    DatagramSocket& operator=(const DatagramSocket&) = delete;
    ~DatagramSocket() { close(); }

    //  Closes the current socket and opens one for address. If this fails, isOpen returns false.
    void open(const ServerAddress& address) noexcept;

    bool isOpen() const noexcept { return descriptor_ >= 0; }

    void close() noexcept;

    //  Sends request and returns its authentic answer. Returns nothing if no such answer arrives, if the server could
    //  not send the whole answer in one datagram, or if waiter is cancelled. Requires: isOpen.
    std::optional<Packet> ask(const SignedRequest& request, const TsigKey& key, const Waiter& waiter,
                              std::chrono::milliseconds until) const;

private:
    enum class Arrival { answer, truncated, none, failed };

    bool send(const DnsBytes& bytes) const noexcept;
    Arrival receive(const SignedRequest& request, const TsigKey& key, Packet& packet) const;

    int descriptor_ = -1;
};

}  // namespace rdbopen

#endif
