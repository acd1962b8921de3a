//  TLS for tests: certificates, made at run time, and a server on loopback.
#ifndef TESTS_UNIT_OPEN_TLS_SUPPORT_H
#define TESTS_UNIT_OPEN_TLS_SUPPORT_H

#include "net/stream.h"
#include "net/tls_context.h"
#include "open_support.h"

#include <atomic>
#include <functional>
#include <thread>

namespace opentest {

using Certificate = rdbopen::TlsPointer<X509>;
using Key = rdbopen::TlsPointer<EVP_PKEY>;

struct Identity {
    Certificate certificate;
    Key key;
    std::string certificatePem() const;
    std::string keyPem(const char* password = nullptr) const;
};

struct Contents {
    std::string subject = "test";
    std::string names = "DNS:server.test,IP:127.0.0.1";  // empty for none
    std::string usage = "serverAuth,clientAuth";
    bool authority = false;
    long from = -3600;  // s from now
    long to = 86400 * 365;
    bool weak = false;  // an RSA key with 1024 bits
};

//  Returns a certificate that `issuer` has signed, or a self-signed one if `issuer` is null.
Identity certify(const Contents& contents, const Identity* issuer);

//  An authority, a server and a client.
struct Pki {
    Identity authority = certify({.subject = "authority", .names = "", .usage = "", .authority = true}, nullptr);
    Identity server = certify({.subject = "server"}, &authority);
    Identity client = certify({.subject = "client", .names = ""}, &authority);
};
const Pki& pki();

//  Accepts one connection after the other. Decrypts and answers each input.
class TlsServer {
public:
    struct Options {
        const Identity* identity = nullptr;       // null: the identity "server" of pki()
        const Identity* intermediate = nullptr;   // if not null, its certificate is sent, too
        const Identity* clientsIssuer = nullptr;  // if not null, the client must have a certificate from this issuer
        int minVersion = 0;
        int maxVersion = 0;
        std::uint16_t upstream = 0;       // loopback port of the server that answers; 0: `answer` is called
        std::size_t cutAfter = SIZE_MAX;  // bytes that are sent before the connection is closed
        std::size_t pieces = SIZE_MAX;    // maximum number of bytes of one write
        std::function<void(SSL*)> afterHandshake{};
        std::function<std::string(const std::string&)> answer{};  // null for an echo
        bool endless = false;                                     // sends new keys until the client closes
    };

    TlsServer() : TlsServer(Options{}) {}
    explicit TlsServer(Options options);
    TlsServer(const TlsServer&) = delete;
    TlsServer& operator=(const TlsServer&) = delete;
    ~TlsServer();

    rdbopen::ServerAddress address() const;
    std::uint16_t port() const noexcept { return port_; }
    int connections() const noexcept { return connections_; }

    //  The server name in the last connection that has ended (SNI), and the first application protocol in the last
    //  offer of a client (ALPN).
    std::string askedName() const;
    std::string offered() const;

private:
    class Connection;
    void run();

    const Options options_;
    rdbopen::TlsPointer<SSL_CTX> context_;
    int listener_ = -1;
    int stop_[2]{-1, -1};
    std::uint16_t port_ = 0;
    std::atomic<int> connections_{0};
    mutable std::mutex mutex_;
    std::string askedName_;
    std::string offered_;
    std::thread thread_;
};

//  Waits without a time limit.
class ReadyWaiter : public rdbopen::Waiter {
public:
    Result wait(int descriptor, short events, std::chrono::milliseconds) const noexcept override {
        pollfd waited{descriptor, events, 0};
        return poll(&waited, 1, -1) == 1 ? Result::ready : Result::failed;
    }
};
inline constexpr ReadyWaiter readyWaiter;

//  A server without TLS on loopback, for one client. If `silent` is true, it only accepts the client. Otherwise it
//  reads the client's first bytes, sends `text` and ends its side of the connection.
class PlainServer {
public:
    explicit PlainServer(std::string text, bool silent = false);
    PlainServer(const PlainServer&) = delete;
    PlainServer& operator=(const PlainServer&) = delete;
    ~PlainServer();
    rdbopen::ServerAddress address() const;

private:
    int listener_;
    int client_ = -1;
    std::uint16_t port_;
    std::thread thread_;
};

}  // namespace opentest

#endif
