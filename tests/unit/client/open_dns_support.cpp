#include "open_dns_support.h"

#include <algorithm>
#include <arpa/inet.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace opentest {

namespace {

void put16(DnsBytes& bytes, std::size_t number) {
    bytes.push_back(static_cast<std::uint8_t>(number >> 8));
    bytes.push_back(static_cast<std::uint8_t>(number));
}

void append(DnsBytes& bytes, const DnsBytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

DnsBytes nameBytes(const std::string& name) {
    DnsBytes bytes;
    std::istringstream labels(name);
    for (std::string label; std::getline(labels, label, '.');) {
        bytes.push_back(static_cast<std::uint8_t>(label.size()));
        bytes.insert(bytes.end(), label.begin(), label.end());
    }
    bytes.push_back(0);
    return bytes;
}

DnsBytes decodeSecret(const std::string& secret) {
    DnsBytes bytes(secret.size());
    const int size = EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(secret.data()),
                                     static_cast<int>(secret.size()));
    const auto padding = std::count(secret.begin(), secret.end(), '=');
    bytes.resize(static_cast<std::size_t>(size - padding));
    return bytes;
}

DnsBytes macOf(const DnsBytes& text, const rdbopen::TsigKey& key) {
    const std::string digest = "SHA" + key.algorithm.substr(std::string("hmac-sha").size());
    const DnsBytes secret = decodeSecret(key.secret);
    DnsBytes mac(EVP_MAX_MD_SIZE);
    unsigned size = 0;
    HMAC(EVP_get_digestbyname(digest.c_str()), secret.data(), static_cast<int>(secret.size()), text.data(), text.size(),
         mac.data(), &size);
    mac.resize(size);
    return mac;
}

}  // namespace

rdbopen::TsigKey testKey(const std::string& algorithm) {
    return {"key1", algorithm, testSecret};
}

DnsBytes fromHex(const std::string& digits) {
    std::string packed;
    std::copy_if(digits.begin(), digits.end(), std::back_inserter(packed), [](char c) { return c != ' '; });
    DnsBytes bytes;
    for (std::size_t i = 0; i + 1 < packed.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(packed.substr(i, 2), nullptr, 16)));
    return bytes;
}

std::string toHex(const DnsBytes& bytes) {
    static const char* const digits = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text.push_back(digits[byte >> 4]);
        text.push_back(digits[byte & 15]);
    }
    return text;
}

DnsBytes timeBytes(std::int64_t time) {
    DnsBytes bytes;
    for (int shift = 40; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<std::uint8_t>(time >> shift));
    return bytes;
}

//  RFC 8945 section 4.3: the request's MAC, the message, and the TSIG variables.
DnsBytes signMessage(DnsBytes message, const DnsBytes& mac, const Signing& signing) {
    DnsBytes times = timeBytes(signing.time);
    put16(times, signing.fudge);
    DnsBytes text = mac;
    append(text, message);
    append(text, nameBytes(signing.key.name));
    append(text, fromHex("00ff 00000000"));
    append(text, nameBytes(signing.key.algorithm));
    append(text, times);
    put16(text, signing.error);
    put16(text, signing.other.size());
    append(text, signing.other);

    DnsBytes data = nameBytes(signing.key.algorithm);
    append(data, times);
    const DnsBytes own = signing.empty ? DnsBytes() : macOf(text, signing.key);
    put16(data, own.size());
    append(data, own);
    data.insert(data.end(), message.begin(), message.begin() + 2);
    put16(data, signing.error);
    put16(data, signing.other.size());
    append(data, signing.other);

    message[11] = static_cast<std::uint8_t>(message[11] + 1);
    append(message, nameBytes(signing.key.name));
    append(message, fromHex("00fa 00ff 00000000"));
    put16(message, data.size());
    append(message, data);
    return message;
}

DnsBytes plainAnswer(unsigned id, unsigned opcode, unsigned rcode, const std::vector<AnswerRecord>& records) {
    DnsBytes message;
    put16(message, id);
    message.push_back(static_cast<std::uint8_t>(0x84 | opcode << 3));
    message.push_back(static_cast<std::uint8_t>(rcode));
    for (const std::size_t count : {std::size_t{0}, records.size(), std::size_t{0}, std::size_t{0}})
        put16(message, count);
    for (const AnswerRecord& record : records) {
        append(message, nameBytes(record.owner));
        put16(message, record.type);
        append(message, fromHex("0001 0000003c"));
        put16(message, record.data.size());
        append(message, record.data);
    }
    return message;
}

SeenRequest seeRequest(const DnsBytes& wire) {
    SeenRequest seen;
    seen.wire = wire;
    const rdbopen::Result<rdbopen::Packet> parsed = rdbopen::parseMessage(wire);
    const ldns_pkt* const packet = parsed.ok() ? parsed->get() : nullptr;
    if (packet == nullptr || ldns_pkt_qdcount(packet) == 0)
        return seen;
    seen.id = ldns_pkt_id(packet);
    seen.opcode = ldns_pkt_get_opcode(packet);
    const ldns_rr* const question = ldns_rr_list_rr(ldns_pkt_question(packet), 0);
    const std::unique_ptr<char, void (*)(void*)> owner(ldns_rdf2str(ldns_rr_owner(question)), std::free);
    seen.owner = owner.get();
    seen.owner.pop_back();
    seen.type = ldns_rr_get_type(question);
    if (const ldns_rr* const signature = ldns_pkt_tsig(packet); signature != nullptr) {
        const ldns_rdf* const mac = ldns_rr_rdf(signature, 3);
        seen.mac.assign(ldns_rdf_data(mac), ldns_rdf_data(mac) + ldns_rdf_size(mac));
        const std::uint8_t* const time = ldns_rdf_data(ldns_rr_rdf(signature, 1));
        for (int i = 0; i < 6; ++i)
            seen.time = seen.time << 8 | time[i];
    }
    return seen;
}

DnsBytes genuineAnswer(const SeenRequest& request, unsigned rcode, const std::vector<AnswerRecord>& records) {
    Signing signing;
    signing.time = request.time;
    return signMessage(plainAnswer(request.id, request.opcode, rcode, records), request.mac, signing);
}

DnsBytes withQuestion(DnsBytes message, const SeenRequest& request) {
    const auto first = request.wire.begin() + 12;
    const auto last = std::find(first, request.wire.end(), 0) + 5;
    message.insert(message.begin() + 12, first, last);
    message[5] = 1;
    return message;
}

DnsBytes datagramAnswer(const SeenRequest& request, unsigned rcode, const std::vector<AnswerRecord>& records,
                        const std::vector<AnswerRecord>& additional) {
    std::vector<AnswerRecord> all = records;
    all.insert(all.end(), additional.begin(), additional.end());
    DnsBytes message = withQuestion(plainAnswer(request.id, request.opcode, rcode, all), request);
    message[7] = static_cast<std::uint8_t>(records.size());
    message[11] = static_cast<std::uint8_t>(additional.size());
    Signing signing;
    signing.time = request.time;
    return signMessage(message, request.mac, signing);
}

AnswerRecord soaOf(const std::string& zone) {
    DnsBytes data = nameBytes("ns." + zone);
    append(data, nameBytes("root." + zone));
    append(data, fromHex("00000001 0000003c 0000003c 0000003c 0000003c"));
    return {zone, 6, data};
}

DnsBytes framed(const DnsBytes& message) {
    DnsBytes bytes;
    put16(bytes, message.size());
    append(bytes, message);
    return bytes;
}

DnsServer::DnsServer(Script script)
    : script_(std::move(script)), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      ending_(eventfd(0, EFD_CLOEXEC)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(listener_, reinterpret_cast<sockaddr*>(&address), length);
    listen(listener_, 16);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
}

DnsServer::~DnsServer() {
    eventfd_write(ending_, 1);
    thread_.join();
    close(listener_);
    close(ending_);
}

void DnsServer::run() {
    for (;;) {
        pollfd waited[] = {{listener_, POLLIN, 0}, {ending_, POLLIN, 0}};
        poll(waited, 2, -1);
        if (waited[1].revents != 0)
            return;
        const int connection = accept(listener_, nullptr, nullptr);
        if (connection < 0)
            continue;
        ++connections_;
        serve(connection);
        close(connection);
    }
}

bool DnsServer::receive(int connection, DnsBytes& bytes) const {
    for (std::size_t filled = 0; filled < bytes.size();) {
        pollfd waited[] = {{connection, POLLIN, 0}, {ending_, POLLIN, 0}};
        poll(waited, 2, -1);
        if (waited[1].revents != 0)
            return false;
        const ssize_t taken = read(connection, bytes.data() + filled, bytes.size() - filled);
        if (taken <= 0)
            return false;
        filled += static_cast<std::size_t>(taken);
    }
    return true;
}

void DnsServer::serve(int connection) {
    for (;;) {
        DnsBytes length(2);
        if (!receive(connection, length))
            return;
        DnsBytes message(static_cast<std::size_t>(length[0]) << 8 | length[1]);
        if (!receive(connection, message))
            return;
        const SeenRequest request = seeRequest(message);
        const Reaction reaction = script_(request);
        requests_.put(request);
        if (send(connection, reaction.bytes.data(), reaction.bytes.size(), MSG_NOSIGNAL) < 0)
            return;
        if (reaction.then == Reaction::Then::goOn)
            continue;
        if (reaction.then == Reaction::Then::end)
            return;
        silent_ = true;
        DnsBytes never(1);
        receive(connection, never);
        return;
    }
}

DatagramServer::DatagramServer(std::uint16_t port, Script script)
    : script_(std::move(script)), socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
      elsewhere_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), ending_(eventfd(0, EFD_CLOEXEC)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        std::abort();  // another program uses the port
    thread_ = std::thread([this] { run(); });
}

DatagramServer::~DatagramServer() {
    eventfd_write(ending_, 1);
    thread_.join();
    close(socket_);
    close(elsewhere_);
    close(ending_);
}

void DatagramServer::run() {
    for (;;) {
        pollfd waited[] = {{socket_, POLLIN, 0}, {ending_, POLLIN, 0}};
        poll(waited, 2, -1);
        if (waited[1].revents != 0)
            return;
        DnsBytes message(65536);
        sockaddr_in client{};
        socklen_t length = sizeof client;
        auto* const place = reinterpret_cast<sockaddr*>(&client);
        const ssize_t size = recvfrom(socket_, message.data(), message.size(), 0, place, &length);
        if (size < 0)
            continue;  // nothing was received
        message.resize(static_cast<std::size_t>(size));
        const SeenRequest request = seeRequest(message);
        for (const Datagram& sent : script_(request))
            sendto(sent.elsewhere ? elsewhere_ : socket_, sent.bytes.data(), sent.bytes.size(), 0, place, length);
        requests_.put(request);
        ++handled_;
    }
}

}  // namespace opentest
