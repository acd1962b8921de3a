//  Answers of a hostile DNS server: whatever their bytes, only what is signed with the key over the request counts, and
//  only as long as nobody altered it. What does count may still say anything.
#include "dns_tsig.h"
#include "fuzz_input.h"
#include "open_dns_support.h"

#include <cctype>

namespace {

using namespace opentest;
using namespace rdbopen;

constexpr std::int64_t now = 1700000000;
constexpr std::uint16_t id = 4711;

const SignedRequest& request() {
    static const SignedRequest made = [] {
        SignedRequest request;
        require(signRequest(queryMessage(id, "host1.example.org", typeAaaa), testKey(), now, request),
                "it can be signed");
        return request;
    }();
    return made;
}

Trust trustIn(const DnsBytes& message) {
    return readAnswer(message, request(), testKey(), now).trust;
}

DnsBytes bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

//  text behind a header that is the request's answer, so that the deeper checks are reached.
DnsBytes answerOf(fuzz_input& input) {
    DnsBytes message = plainAnswer(id, opcodeQuery, input.number<std::uint8_t>() & 0xf);
    for (std::size_t count = 5; count < message.size(); count += 2)
        message[count] = input.number<std::uint8_t>() & 7;
    const DnsBytes body = bytesOf(input.all());
    message.insert(message.end(), body.begin(), body.end());
    return message;
}

//  A letter of the signature's names may change its case; they stand behind the message of the given size.
bool onlyChangesCase(const DnsBytes& message, std::size_t size, std::size_t at, std::uint8_t mask) {
    constexpr std::size_t namesEnd = 28;
    return at >= size && at < size + namesEnd && mask == 0x20 && std::isalpha(message[at]) != 0;
}

void checkAltered(const DnsBytes& genuine, std::size_t size, std::size_t at, std::uint8_t mask) {
    if (mask == 0)
        return;
    DnsBytes altered = genuine;
    altered[at % genuine.size()] ^= mask;
    if (trustIn(altered) == Trust::whole)
        require(onlyChangesCase(genuine, size, at % genuine.size(), mask), "an altered answer never counts");
}

//  Signs what the server says, and reads it as the back end does.
void checkSigned(const DnsBytes& message, std::size_t at, std::uint8_t mask) {
    if (message.size() > longestMessage)
        return;
    Signing signing;
    signing.time = now;
    const DnsBytes genuine = signMessage(message, request().mac, signing);
    const Answer answer = readAnswer(genuine, request(), testKey(), now);
    require((answer.trust == Trust::whole) == (answer.packet != nullptr), "what counts can be read");
    if (answer.packet) {
        answerHas(*answer.packet, "host1.example.org", typeCname);
        answerHolds(*answer.packet, {"host1.example.org", typeAaaa, {DnsBytes(16)}});
        answerHolds(*answer.packet, {"host1.example.org", typeHttps, {}});
    }
    checkAltered(genuine, message.size(), at, mask);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    require(trustIn({data, data + size}) != Trust::whole, "bytes without the key never count");
    fuzz_input input(data, size);
    const std::size_t at = input.number<std::uint16_t>();
    const auto mask = input.number<std::uint8_t>();
    const DnsBytes message = answerOf(input);
    require(trustIn(message) != Trust::whole, "an answer without a signature never counts");
    checkSigned(message, at, mask);
    return 0;
}
