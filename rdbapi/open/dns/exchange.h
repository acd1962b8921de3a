//  One connection to a DNS server: signed requests and their answers, one after the other (RFC 7766). Each message is
//  preceded by a two-byte length.
//
//  A connection is used for one operation and then closed, because servers close idle connections within seconds.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_DNS_EXCHANGE_H
#define RDBAPI_OPEN_DNS_EXCHANGE_H

#include "dns/tsig.h"
#include "net/tcp_stream.h"

namespace rdbopen {

class DnsExchange {
public:
    //  Requires: waiter outlives the object.
    DnsExchange(const Waiter& waiter, TsigKey key) : waiter_(waiter), key_(std::move(key)) {}

    //  Connects like TcpStream::connect.
    Status connect(const ServerAddress& address, std::chrono::milliseconds until);

    //  Signs message, sends it and returns the verified answer. Fails with errorBackendFailed if there is no answer.
    Answer ask(DnsBytes message, std::chrono::milliseconds until);

private:
    const Waiter& waiter_;
    TsigKey key_;
    TcpStream stream_;
};

}  // namespace rdbopen

#endif
