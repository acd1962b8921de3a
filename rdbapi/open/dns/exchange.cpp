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
    return stream_.connect(address, waiter_, until);
}

Answer DnsExchange::ask(DnsBytes message, std::chrono::milliseconds until) {
    if (monotonicNow() >= until)  // the limit also applies if no operation has to wait
        return waitFailure(Waiter::Result::timedOut);
    const Result<SignedRequest> request = signRequest(std::move(message), key_, wallNow() / 1000);
    if (!request.ok())
        return request.status();
    if (request->wire.size() > maxDnsMessageSize)
        return backendFailed("the signed message is too long");
    if (Status failed = stream_.send(framed(request->wire), waiter_, until); !failed.ok())
        return failed;
    std::uint8_t length[lengthLength];
    if (Status failed = stream_.receive(length, waiter_, until); !failed.ok())
        return failed;
    DnsBytes received(readDns16(length));
    if (Status failed = stream_.receive(received, waiter_, until); !failed.ok())
        return failed;
    return readAnswer(received, *request, key_, wallNow() / 1000);
}

}  // namespace rdbopen
