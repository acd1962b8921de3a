//  Answers of a hostile DNS server. Whatever its bytes are, an answer is authentic only if it is signed with the key
//  and was not modified afterwards. One change is allowed: the case of letters in the signature's two names. The
//  contents of an authentic answer may be anything.
#include "dns/tsig.h"
#include "fuzz_input.h"
#include "open_dns_support.h"

#include <algorithm>
#include <cctype>

namespace {

using namespace opentest;
using namespace rdbopen;

constexpr std::int64_t now = 1700000000;
constexpr std::uint16_t id = 4711;

const SignedRequest& request() {
    static const SignedRequest made = [] {
        Result<SignedRequest> request = signRequest(queryMessage(id, "host1.example.org", typeAaaa), testKey(), now);
        require(request.ok(), "the request can be signed");
        return *request;
    }();
    return made;
}

//  Over UDP an answer must also contain the question of the request. It may be truncated.
bool isTrusted(const DnsBytes& message) {
    const bool trusted = readAnswer(message, request(), testKey(), now).ok();
    const bool datagram = readDatagram(message, request(), testKey(), now).ok();
    require(!datagram || trusted || (message[2] & 2) != 0, "a datagram is not trusted more than other answers");
    return trusted || datagram;
}

DnsBytes bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

//  Returns a header that matches the request, followed by bytes of the input, so that the later checks are reached too.
DnsBytes answerOf(fuzz_input& input) {
    DnsBytes message = plainAnswer(id, opcodeQuery, input.number<std::uint8_t>() & 0xf);
    for (std::size_t count = 5; count < message.size(); count += 2)
        message[count] = input.number<std::uint8_t>() & 7;
    const DnsBytes body = bytesOf(input.all());
    message.insert(message.end(), body.begin(), body.end());
    return message;
}

//  Returns whether a change of byte `at` changes only the case of a letter in the signature's two names. The letters of
//  the names are in the first 28 bytes after the signed message of `size` bytes.
bool onlyChangesCase(const DnsBytes& message, std::size_t size, std::size_t at, std::uint8_t mask) {
    constexpr std::size_t namesEnd = 28;
    return at >= size && at < size + namesEnd && mask == 0x20 && std::isalpha(message[at]) != 0;
}

void checkAltered(const DnsBytes& genuine, std::size_t size, std::size_t at, std::uint8_t mask) {
    if (mask == 0)
        return;
    DnsBytes altered = genuine;
    altered[at % genuine.size()] ^= mask;
    if (isTrusted(altered))
        require(onlyChangesCase(genuine, size, at % genuine.size(), mask), "a modified answer is refused");
}

//  Signs the server's answer, and reads it as the back end does.
void checkSigned(const DnsBytes& message, std::size_t at, std::uint8_t mask) {
    if (message.size() > maxDnsMessageSize)
        return;
    Signing signing;
    signing.time = now;
    const DnsBytes genuine = signMessage(message, request().mac, signing);
    const Answer answer = readAnswer(genuine, request(), testKey(), now);
    if (answer.ok()) {
        answerHas(**answer, "host1.example.org", typeCname);
        answerHolds(**answer, {"host1.example.org", typeAaaa, {DnsBytes(16)}});
        answerHolds(**answer, {"host1.example.org", typeHttps, {}});
        additionalHolds(**answer, {"host1.example.org", typeAaaa, {DnsBytes(16)}});
    }
    checkAltered(genuine, message.size(), at, mask);
}

//  A record that checkRecords has put into the answer: its owner, its type and its data.
struct Said {
    std::string owner;
    std::uint16_t type;
    DnsBytes data;
};

const std::string owners[] = {"host1.example.org", "host2.example.org", "example.org", "host1.example.org.org",
                              "*.example.org"};
constexpr std::uint16_t types[] = {typeAaaa, typeCname, 1, 16};

DnsBytes dataOf(std::uint16_t type, fuzz_input& input) {
    DnsBytes data(type == typeAaaa ? 16 : type == 1 ? 4 : 0);
    if (type == typeCname)
        putDnsName(data, owners[input.number<std::uint8_t>() % std::size(owners)]);
    else if (type == 16)
        data = {1, input.number<std::uint8_t>()};
    else
        data.back() = input.number<std::uint8_t>() % 4;
    return data;
}

std::string otherCase(std::string name, unsigned letters) {
    for (char& c : name) {
        if (letters % 2 != 0 && std::isalpha(static_cast<unsigned char>(c)) != 0)
            c = static_cast<char>(c ^ 0x20);
        letters /= 2;
    }
    return name;
}

//  For each owner and type, an authentic answer matches exactly the list of its records. Neither the order of the
//  records nor the case of the owner's letters matters.
void checkRecords(fuzz_input& input, std::size_t at, std::uint8_t mask) {
    std::vector<Said> said;
    std::vector<AnswerRecord> written;
    for (int count = input.number<std::uint8_t>() % 6; count > 0; --count) {
        const std::uint16_t type = types[input.number<std::uint8_t>() % std::size(types)];
        said.push_back({owners[input.number<std::uint8_t>() % std::size(owners)], type, dataOf(type, input)});
        written.push_back({otherCase(said.back().owner, input.number<std::uint16_t>()), type, said.back().data});
    }
    Signing signing;
    signing.time = now;
    const DnsBytes message = plainAnswer(id, opcodeQuery, 0, written);
    const DnsBytes genuine = signMessage(message, request().mac, signing);
    checkAltered(genuine, message.size(), at, mask);
    const Answer answer = readAnswer(genuine, request(), testKey(), now);
    require(answer.ok(), "a genuine answer is accepted");
    for (const std::string& owner : owners)
        for (const std::uint16_t type : types) {
            std::vector<DnsBytes> data;
            for (const Said& record : said)
                if (record.owner == owner && record.type == type)
                    data.insert(data.begin(), record.data);
            require(answerHas(**answer, owner, type) == !data.empty(), "both find a record or none");
            require(answerHolds(**answer, {owner, type, data}), "both find the same records");
            data.push_back({1, 2, 3});
            require(!answerHolds(**answer, {owner, type, data}), "an additional expected record is detected");
            data.resize(std::max<std::size_t>(data.size(), 2) - 2);
            require(answerHolds(**answer, {owner, type, data}) == !answerHas(**answer, owner, type),
                    "a missing expected record is detected");
        }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    require(!isTrusted({data, data + size}), "bytes that were made without the key are refused");
    fuzz_input input(data, size);
    const std::size_t at = input.number<std::uint16_t>();
    const auto mask = input.number<std::uint8_t>();
    const DnsBytes message = answerOf(input);
    require(!isTrusted(message), "an answer without a signature is refused");
    checkSigned(message, at, mask);
    fuzz_input records(data, size);
    checkRecords(records, at, mask);
    return 0;
}
