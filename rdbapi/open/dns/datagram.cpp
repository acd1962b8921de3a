#include "dns/datagram.h"

#include "engine/clock.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace rdbopen {

namespace {

constexpr int maxSends = 2;
constexpr std::chrono::milliseconds maxWait{1000};  // longer than nearly all round trips

}  // namespace

void DatagramSocket::open(const ServerAddress& address) noexcept {
    close();
    descriptor_ = socket(address.bytes.ss_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (isOpen() && connect(descriptor_, reinterpret_cast<const sockaddr*>(&address.bytes), address.length) != 0)
        close();
}

void DatagramSocket::close() noexcept {
    if (descriptor_ >= 0)
        ::close(descriptor_);
    descriptor_ = -1;
}

//  The message is the same both times, so that a late answer to the first datagram counts, too. A failed receive
//  usually means that an ICMP message has arrived, for example because the server's port is closed. Waiting would not
//  help then.
std::optional<Packet> DatagramSocket::ask(const SignedRequest& request, const TsigKey& key, const Waiter& waiter,
                                          std::chrono::milliseconds until) const {
    for (int sends = 0; sends < maxSends && !waiter.cancelled(); ++sends) {
        const auto now = monotonicNow();
        const auto end = now + std::min(maxWait, (until - now) / 4);
        if (!send(request.wire))
            return std::nullopt;
        while (monotonicNow() < end && waiter.wait(descriptor_, POLLIN, end) == Waiter::Result::ready) {
            Packet packet;
            const Arrival arrival = receive(request, key, packet);
            if (arrival == Arrival::answer)
                return packet;
            if (arrival != Arrival::none)
                return std::nullopt;
        }
    }
    return std::nullopt;
}

//  Returns false if the message certainly does not reach the server. A full send buffer counts as a lost datagram.
bool DatagramSocket::send(const DnsBytes& bytes) const noexcept {
    return ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0 || errno == EAGAIN || errno == EINTR;
}

//  recv cuts a datagram that is longer than maxDatagramSize. A cut datagram is not authentic, because the signature is
//  at the end.
DatagramSocket::Arrival DatagramSocket::receive(const SignedRequest& request, const TsigKey& key,
                                                Packet& packet) const {
    std::uint8_t bytes[maxDatagramSize];
    const ssize_t size = recv(descriptor_, bytes, sizeof bytes, 0);
    if (size < 0)
        return errno == EAGAIN || errno == EINTR ? Arrival::none : Arrival::failed;
    Answer answer = readDatagram({bytes, static_cast<std::size_t>(size)}, request, key, wallNow() / 1000);
    if (!answer.ok())
        return Arrival::none;
    packet = std::move(*answer);
    return ldns_pkt_tc(packet.get()) ? Arrival::truncated : Arrival::answer;
}

}  // namespace rdbopen
