//  DNS for tests: messages that are built byte by byte and signed without the code under test; and servers on loopback
//  that answer according to a script, over TCP and over UDP.
#ifndef TESTS_UNIT_OPEN_DNS_SUPPORT_H
#define TESTS_UNIT_OPEN_DNS_SUPPORT_H

#include "dns/tsig.h"
#include "open_support.h"

#include <atomic>
#include <functional>
#include <thread>

namespace opentest {

using rdbopen::DnsBytes;

inline constexpr const char* testSecret = "MTIzNDU2Nzg5MDEyMzQ1Njc4OTAxMjM0NTY3ODkwMTI=";

//  The key that the tests share with their servers.
rdbopen::TsigKey testKey(const std::string& algorithm = "hmac-sha256");

//  Returns bytes from hexadecimal digits; blanks are ignored.
DnsBytes fromHex(const std::string& digits);
std::string toHex(const DnsBytes& bytes);

//  The contents of a server's signature.
struct Signing {
    rdbopen::TsigKey key = testKey();
    std::int64_t time = 0;
    std::uint16_t fudge = 300;
    unsigned error = 0;
    DnsBytes other;
    bool empty = false;  // the signature has no MAC
};

//  Returns `message` with a signature appended. `mac` is the request's MAC, preceded by its length, or empty.
DnsBytes signMessage(DnsBytes message, const DnsBytes& mac, const Signing& signing);

//  Returns a time as six bytes.
DnsBytes timeBytes(std::int64_t time);

struct AnswerRecord {
    std::string owner;
    std::uint16_t type;
    DnsBytes data;
};

//  Returns an authoritative answer without a question and without a signature.
DnsBytes plainAnswer(unsigned id, unsigned opcode, unsigned rcode, const std::vector<AnswerRecord>& records = {});

//  A request as received by a server.
struct SeenRequest {
    DnsBytes wire;
    unsigned id = 0;
    unsigned opcode = 0;
    std::string owner;  // owner of the first question, without the final dot
    unsigned type = 0;
    DnsBytes mac;  // preceded by its length
    std::int64_t time = 0;
};
SeenRequest seeRequest(const DnsBytes& wire);

//  Returns an authentic answer to request, signed with the request's time.
DnsBytes genuineAnswer(const SeenRequest& request, unsigned rcode, const std::vector<AnswerRecord>& records = {});

//  Returns an authentic answer to request as a server sends it over UDP: with the request's question.
DnsBytes datagramAnswer(const SeenRequest& request, unsigned rcode, const std::vector<AnswerRecord>& records = {},
                        const std::vector<AnswerRecord>& additional = {});

//  Adds the question of `request` to `message`. Requires that `message` has no question and no signature.
DnsBytes withQuestion(DnsBytes message, const SeenRequest& request);

//  Returns a SOA record of the zone. The back end queries this record when it opens.
AnswerRecord soaOf(const std::string& zone);

//  Returns `message` preceded by its length, as it is sent over TCP.
DnsBytes framed(const DnsBytes& message);

//  A server's reaction to a request. The server sends `bytes` unchanged. Then it continues, closes the connection, or
//  keeps the connection open without answering.
struct Reaction {
    enum class Then { goOn, end, keepSilent };
    DnsBytes bytes;
    Then then = Then::goOn;
};

//  Serves one connection at a time. The destructor closes the connection and ends the server's thread.
class DnsServer {
public:
    using Script = std::function<Reaction(const SeenRequest&)>;

    explicit DnsServer(Script script);
    ~DnsServer();

    std::string url(const std::string& rest = "/example.org") const {
        return "dns://127.0.0.1:" + std::to_string(port_) + rest;
    }
    std::uint16_t port() const { return static_cast<std::uint16_t>(port_); }

    //  Returns true if the server has stopped answering.
    bool silent() const { return silent_; }
    int connections() const { return connections_; }
    Inbox<SeenRequest>& requests() { return requests_; }

private:
    void run();
    void serve(int connection);
    bool receive(int connection, DnsBytes& bytes) const;

    Script script_;
    int listener_;
    int ending_;  // an event descriptor
    int port_ = 0;
    std::atomic<bool> silent_{false};
    std::atomic<int> connections_{0};
    Inbox<SeenRequest> requests_;
    std::thread thread_;
};

//  A datagram of a server. If `elsewhere` is true, its source port is not the port of the server.
struct Datagram {
    DnsBytes bytes;
    bool elsewhere = false;
};

//  Answers queries over UDP on the port of a DnsServer. The destructor ends its thread.
class DatagramServer {
public:
    //  Returns the datagrams that are sent to the client, in order.
    using Script = std::function<std::vector<Datagram>(const SeenRequest&)>;

    DatagramServer(std::uint16_t port, Script script);
    ~DatagramServer();

    //  Returns the number of datagrams received whose answers have all been sent.
    int handled() const { return handled_; }
    Inbox<SeenRequest>& requests() { return requests_; }

private:
    void run();

    Script script_;
    int socket_;
    int elsewhere_;
    int ending_;  // an event descriptor
    std::atomic<int> handled_{0};
    Inbox<SeenRequest> requests_;
    std::thread thread_;
};

}  // namespace opentest

#endif
