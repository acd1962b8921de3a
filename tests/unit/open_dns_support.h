//  DNS for tests: messages put together byte by byte and signed without the code under test, and a server on loopback
//  that answers as its script says.
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

//  The key of all tests.
rdbopen::TsigKey testKey(const std::string& algorithm = "hmac-sha256");

//  Bytes from hexadecimal digits; blanks are passed over.
DnsBytes fromHex(const std::string& digits);
std::string toHex(const DnsBytes& bytes);

//  What a server writes into a signature.
struct Signing {
    rdbopen::TsigKey key = testKey();
    std::int64_t time = 0;
    std::uint16_t fudge = 300;
    unsigned error = 0;
    DnsBytes other;
    bool empty = false;  // without a mac
};

//  Returns message with a signature behind it. mac: the request's, its length in front; may be empty.
DnsBytes signMessage(DnsBytes message, const DnsBytes& mac, const Signing& signing);

//  Six bytes of a time.
DnsBytes timeBytes(std::int64_t time);

struct AnswerRecord {
    std::string owner;
    std::uint16_t type;
    DnsBytes data;
};

//  Returns an answer without a question and without a signature: authoritative, of id and opcode.
DnsBytes plainAnswer(unsigned id, unsigned opcode, unsigned rcode, const std::vector<AnswerRecord>& records = {});

//  A request as a server sees it.
struct SeenRequest {
    DnsBytes wire;
    unsigned id = 0;
    unsigned opcode = 0;
    std::string owner;  // of the first question, in lower case and without the last dot
    unsigned type = 0;
    DnsBytes mac;  // its length in front
    std::int64_t time = 0;
};
SeenRequest seeRequest(const DnsBytes& wire);

//  Returns a genuine answer to request: signed at its own time.
DnsBytes genuineAnswer(const SeenRequest& request, unsigned rcode, const std::vector<AnswerRecord>& records = {});

//  The answer record that opening asks for.
AnswerRecord soaOf(const std::string& zone);

//  message with its length in front.
DnsBytes framed(const DnsBytes& message);

//  What a server does with a request: sends bytes as they are, then goes on, ends the connection, or keeps it open and
//  silent.
struct Reaction {
    enum class Then { goOn, end, keepSilent };
    DnsBytes bytes;
    Then then = Then::goOn;
};

//  One connection at a time. Ends all when it is destroyed.
class DnsServer {
public:
    using Script = std::function<Reaction(const SeenRequest&)>;

    explicit DnsServer(Script script);
    ~DnsServer();

    std::string url(const std::string& rest = "/example.org") const {
        return "dns://127.0.0.1:" + std::to_string(port_) + rest;
    }
    //  True once the server keeps silent, or has ended a connection.
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

}  // namespace opentest

#endif
