#include "dns/exchange.h"

#include "dns/layout.h"
#include "engine/clock.h"

namespace rdbopen {

namespace {

constexpr std::size_t lengthLength = 2;

//  Returns the length and the message in one buffer, so that both are sent in one segment if they fit.
DnsBytes framed(const DnsBytes& message) {
    DnsBytes bytes{static_cast<std::uint8_t>(message.size() >> 8), static_cast<std::uint8_t>(message.size())};
    bytes.insert(bytes.end(), message.begin(), message.end());
    return bytes;
}

}  // namespace

Status DnsExchange::connect(const ServerAddress& address, std::chrono::milliseconds until) {
    early_.reset();
    datagrams_.close();
    if (waiter_.cancelled())
        return cancelledFailure();
    return stream_.connect(address, waiter_, until);
}

Status DnsExchange::reach(const ServerAddress& address, const DnsBytes& first, std::chrono::milliseconds until) {
    const Result<SignedRequest> request = sign(first);
    if (!request.ok())
        return request.status();
    early_.reset();
    address_ = address;
    datagrams_.open(address);
    if (datagrams_.isOpen())
        if (std::optional<Packet> answer = datagrams_.ask(*request, key_, waiter_, until)) {
            early_ = std::move(*answer);
            return {};
        }
    return connect(address, until);
}

Answer DnsExchange::ask(const DnsBytes& message, std::chrono::milliseconds until) {
    if (early_ != nullptr)
        return std::move(early_);
    if (monotonicNow() >= until)  // only waits test the limit, and a request that is answered at once never waits
        return waitFailure(Waiter::Result::timedOut);
    const Result<SignedRequest> request = sign(message);
    if (!request.ok())
        return request.status();
    if (datagrams_.isOpen()) {
        if (std::optional<Packet> answer = datagrams_.ask(*request, key_, waiter_, until))
            return std::move(*answer);
        if (Status failed = connect(address_, until); !failed.ok())
            return failed;
    }
    return askStream(*request, until);
}

Result<SignedRequest> DnsExchange::sign(const DnsBytes& message) const {
    Result<SignedRequest> request = signRequest(message, key_, wallNow() / 1000);
    if (request.ok() && request->wire.size() > maxDnsMessageSize)
        return backendFailed("the signed message is too long");
    return request;
}

Answer DnsExchange::askStream(const SignedRequest& request, std::chrono::milliseconds until) {
    if (Status failed = stream_.send(framed(request.wire), waiter_, until); !failed.ok())
        return failed;
    std::uint8_t length[lengthLength];
    if (Status failed = stream_.receive(length, waiter_, until); !failed.ok())
        return failed;
    DnsBytes received(readDns16(length));
    if (Status failed = stream_.receive(received, waiter_, until); !failed.ok())
        return failed;
    return readAnswer(received, request, key_, wallNow() / 1000);
}

}  // namespace rdbopen
