//  One TLS connection of a back end, over TCP. OpenSSL encrypts; this class itself calls send(2) and recv(2), so that
//  no call of OpenSSL waits or raises SIGPIPE.
//
//      connect, send, receive --> SSL_connect, SSL_write, SSL_read --> BIO of this class --> send(2), recv(2)
//             ^                            |
//             +---- wait for input or room-+  as long as OpenSSL reports that it lacks input or room
//
//  After its time limit, an operation fails at its next wait. A call of OpenSSL reads at most 64 times; then it reports
//  a lack of input, and a wait follows. So an operation also ends if the server sends only records without data, new
//  keys (RFC 8446 section 4.6.3) or new session tickets.
//
//  OpenSSL never reads beyond the current record. So poll(2) reports all input, except the bytes of a record for which
//  the caller of take or receive had no room.
//
//  Threads: one thread at a time.
#ifndef RDBAPI_OPEN_NET_TLS_STREAM_H
#define RDBAPI_OPEN_NET_TLS_STREAM_H

#include "net/tcp_stream.h"
#include "net/tls_context.h"

namespace rdbopen {

class TlsStream final : public Stream {
public:
    //  Requires: prepareTls has succeeded.
    explicit TlsStream(TlsSettings settings) : settings_(std::move(settings)) {}
    ~TlsStream() override { close(); }

    //  Connects, completes the handshake and verifies the server's certificate. Reads the files of the settings. The
    //  server may refuse the client certificate later: then a send, take or receive fails.
    Status connect(const ServerAddress& address, const Waiter& waiter, std::chrono::milliseconds until) override;
    Status send(std::span<const std::uint8_t> bytes, const Waiter& waiter, std::chrono::milliseconds until) override;
    Result<std::size_t> take(std::span<std::uint8_t> bytes) override;
    Status waitForInput(const Waiter& waiter, std::chrono::milliseconds until) override;
    Status receive(std::span<std::uint8_t> bytes, const Waiter& waiter, std::chrono::milliseconds until) override;
    bool endedByServer() const noexcept override { return wire_.ended; }
    int descriptor() const noexcept override { return tcp_.descriptor(); }
    void close() noexcept override;

private:
    enum class Step { done, lacksInput, lacksRoom, failed };

    //  The state that the functions of the BIO share with the other functions.
    struct Wire {
        int descriptor = -1;
        int readsLeft = 0;       // number of further reads; at 0 the BIO reports a lack of input
        bool heard = false;      // the server has sent a byte
        std::uint8_t first = 0;  // the first byte that the server has sent
        bool ended = false;      // the server has ended the connection
        int error = 0;           // errno of the call that failed; 0 for none
        int refusedAt = 0;       // position of the refused certificate in its chain; 0: the server's certificate
    };

    Status open(const ServerAddress& address, const Waiter& waiter, std::chrono::milliseconds until);
    Status prepare();
    bool setName();
    Status handshake(const Waiter& waiter, std::chrono::milliseconds until);
    template <class Call>
    Step attempt(Call call);
    template <class Call>
    Status complete(Call call, const Waiter& waiter, std::chrono::milliseconds until);
    Waiter::Result waitFor(Step lack, const Waiter& waiter, std::chrono::milliseconds until) const;
    Status fault();
    Status refusalOr(const Status& failed);

    static const BIO_METHOD* wireMethod();
    static int readWire(BIO* bio, char* bytes, int size);
    static int writeWire(BIO* bio, const char* bytes, int size);
    static long controlWire(BIO* bio, int command, long number, void* pointer);
    static int noteDepth(int accepted, X509_STORE_CTX* store);

    const TlsSettings settings_;
    std::string name_;  // that the certificate of the current server must have
    TcpStream tcp_;
    TlsPointer<SSL> tls_;
    Wire wire_;
    Step lack_ = Step::lacksInput;  // what the last take lacked
    bool broken_ = false;           // a call has failed, so SSL_shutdown must not follow
};

}  // namespace rdbopen

#endif
