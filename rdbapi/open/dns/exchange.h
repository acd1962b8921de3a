//  Signed requests to one address of a DNS server and their answers, one after the other: over a connection (RFC 7766),
//  where each message is preceded by a two-byte length, or over UDP (datagram.h).
//
//      connect   all requests use the connection
//      reach     requests use UDP; if a request gets no usable answer, it and all later ones use a connection
//
//  A connection is used for one operation and then closed, because servers close idle connections within seconds.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_DNS_EXCHANGE_H
#define RDBAPI_OPEN_DNS_EXCHANGE_H

#include "dns/datagram.h"
#include "dns/tsig.h"
#include "net/stream.h"

namespace rdbopen {

class DnsExchange {
public:
    //  Requires: stream and waiter outlive the object. The destructor closes stream.
    DnsExchange(Stream& stream, const Waiter& waiter, TsigKey key)
        : stream_(stream), waiter_(waiter), key_(std::move(key)) {}
    DnsExchange(const DnsExchange&) = delete;
    DnsExchange& operator=(const DnsExchange&) = delete;
    ~DnsExchange() { stream_.close(); }

    //  Connects to address like Stream::connect.
    Status connect(const ServerAddress& address, std::chrono::milliseconds until);

    //  Sends the message that the parameter first contains over UDP, because only an answer shows that address can be
    //  reached. Without a usable answer, connects to address. Requires: the next call of ask has the same message.
    Status reach(const ServerAddress& address, const DnsBytes& first, std::chrono::milliseconds until);

    //  Signs message, sends it and returns the verified answer. The first call after reach only returns the answer that
    //  reach received, if any. Fails with errorBackendFailed if there is no answer, otherwise like readAnswer (tsig.h).
    Answer ask(const DnsBytes& message, std::chrono::milliseconds until);

private:
    Answer askStream(const SignedRequest& request, std::chrono::milliseconds until);
    Result<SignedRequest> sign(const DnsBytes& message) const;

    Stream& stream_;
    const Waiter& waiter_;
    TsigKey key_;
    DatagramSocket datagrams_;  // closed while requests use the connection
    ServerAddress address_{};   // of the last call of reach
    Packet early_;              // the answer that reach received, until ask returns it
};

}  // namespace rdbopen

#endif
