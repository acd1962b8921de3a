//  One connection to a DNS server: signed requests and their answers, one after the other (RFC 7766). Each message is
//  preceded by a two-byte length.
//
//  A connection is used for one operation and then closed, because servers close idle connections within seconds.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_DNS_EXCHANGE_H
#define RDBAPI_OPEN_DNS_EXCHANGE_H

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

    //  Connects like Stream::connect.
    Status connect(const ServerAddress& address, std::chrono::milliseconds until);

    //  Signs message, sends it and returns the verified answer. Fails with errorBackendFailed if there is no answer.
    Answer ask(DnsBytes message, std::chrono::milliseconds until);

private:
    Stream& stream_;
    const Waiter& waiter_;
    TsigKey key_;
};

}  // namespace rdbopen

#endif
