#include "dns/tsig.h"

#include "dns/layout.h"
#include "dns/words.h"

#include <algorithm>
#include <cstdlib>
#include <nettle/hmac.h>
#include <nettle/memops.h>

namespace rdbopen {

namespace {

using View = std::span<const std::uint8_t>;

constexpr std::size_t flagsAt = 2;        // byte with QR (1 bit), opcode (4 bits), AA, TC and RD (1 bit each)
constexpr std::size_t rcodeAt = 3;        // the code is the lower half of this byte
constexpr std::size_t additionalAt = 10;  // count of additional records
constexpr std::uint8_t flagResponse = 0x80;
constexpr std::uint8_t flagTruncated = 0x02;

//  Computes the MAC of text with secret and stores it in mac, whose size is the MAC length of the algorithm.
template <class Context, auto setKey, auto update, auto digest>
void hmac(View secret, View text, std::span<std::uint8_t> mac) {
    Context context;
    setKey(&context, secret.size(), secret.data());
    update(&context, text.size(), text.data());
    digest(&context, mac.size(), mac.data());
}

struct Algorithm {
    std::string_view name;
    std::size_t length;  // length of a MAC in bytes
    void (*compute)(View secret, View text, std::span<std::uint8_t> mac);
};

constexpr Algorithm algorithms[] = {
    {"hmac-sha1", SHA1_DIGEST_SIZE, hmac<hmac_sha1_ctx, hmac_sha1_set_key, hmac_sha1_update, hmac_sha1_digest>},
    {"hmac-sha256", SHA256_DIGEST_SIZE,
     hmac<hmac_sha256_ctx, hmac_sha256_set_key, hmac_sha256_update, hmac_sha256_digest>},
    {"hmac-sha384", SHA384_DIGEST_SIZE,
     hmac<hmac_sha512_ctx, hmac_sha384_set_key, hmac_sha512_update, hmac_sha384_digest>},
    {"hmac-sha512", SHA512_DIGEST_SIZE,
     hmac<hmac_sha512_ctx, hmac_sha512_set_key, hmac_sha512_update, hmac_sha512_digest>},
};

struct FreeRdf {
    void operator()(ldns_rdf* rdf) const { ldns_rdf_deep_free(rdf); }
};
using Rdf = std::unique_ptr<ldns_rdf, FreeRdf>;

Rdf decode(const std::string& secret) {
    ldns_rdf* bytes = nullptr;
    return Rdf(ldns_str2rdf_b64(&bytes, secret.c_str()) == LDNS_STATUS_OK ? bytes : nullptr);
}

const Algorithm* algorithmOf(std::string_view name) {
    const auto* found = std::find_if(std::begin(algorithms), std::end(algorithms),
                                     [name](const Algorithm& known) { return known.name == name; });
    return found != std::end(algorithms) ? found : nullptr;
}

void append(DnsBytes& bytes, View more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

DnsBytes nameBytes(std::string_view name) {
    DnsBytes bytes;
    putDnsName(bytes, name);
    return bytes;
}

//  The data of a signature, RFC 8945 section 4.2. The numbers are lengths in bytes.
//
//      | algorithm | time 6 | fudge 2 | length 2 | mac | original id 2 | error 2 | length 2 | other |
struct Signature {
    View algorithm;  // a name, not compressed
    View times;      // time of signing and fudge
    View mac;
    View id;
    View error;
    View other;  // preceded by its length
};

constexpr std::size_t timeLength = 6;
constexpr std::size_t timesLength = timeLength + 2;

std::int64_t readTime(View bytes) {
    std::int64_t number = 0;
    for (const std::uint8_t byte : bytes.first(timeLength))
        number = number << 8 | byte;
    return number;
}

unsigned read16(View bytes) {
    return readDns16(bytes.data());
}

//  Removes length bytes from the start of rest and returns them, or nothing if rest is shorter.
std::optional<View> take(View& rest, std::size_t length) {
    if (rest.size() < length)
        return std::nullopt;
    const View taken = rest.first(length);
    rest = rest.subspan(length);
    return taken;
}

std::optional<View> takeName(View& rest) {
    constexpr std::size_t maxLabelLength = 63;
    std::size_t length = 0;
    while (length < rest.size() && rest[length] != 0 && rest[length] <= maxLabelLength)
        length += std::size_t{1} + rest[length];
    return length < rest.size() && rest[length] == 0 ? take(rest, length + 1) : std::nullopt;
}

//  Fails if a part is missing, or if bytes follow the last part. After a missing part, the values of the later parts
//  are meaningless, but no byte outside of data is read.
Result<Signature> parseSignature(View data) {
    const auto algorithm = takeName(data);
    const auto times = take(data, timesLength);
    const auto length = take(data, 2);
    const auto mac = take(data, length ? read16(*length) : 0);
    const auto id = take(data, 2);
    const auto error = take(data, 2);
    if (!algorithm || !times || !length || !mac || !id || !error || data.size() < 2 || data.size() != 2 + read16(data))
        return backendFailed("the signature of the answer is malformed");
    return Signature{*algorithm, *times, *mac, *id, *error, data};
}

//  Returns the MAC of key over the data of RFC 8945 section 4.3: the request's MAC (empty if message is a request), the
//  message without its signature, and the TSIG variables. Requires: key has a valid algorithm and secret
//  (isTsigAlgorithm, isTsigSecret).
Result<DnsBytes> computeMac(const TsigKey& key, View requestMac, View message, const Signature& signature) {
    constexpr std::uint8_t classAnyTtlZero[] = {0, 255, 0, 0, 0, 0};
    DnsBytes text(requestMac.begin(), requestMac.end());
    append(text, message);
    append(text, nameBytes(key.name));
    append(text, classAnyTtlZero);
    append(text, nameBytes(key.algorithm));
    append(text, signature.times);
    append(text, signature.error);
    append(text, signature.other);
    const Algorithm* const algorithm = algorithmOf(key.algorithm);
    const Rdf secret = decode(key.secret);
    if (algorithm == nullptr || secret == nullptr)
        return backendFailed("out of memory");
    DnsBytes mac(algorithm->length);
    algorithm->compute({ldns_rdf_data(secret.get()), ldns_rdf_size(secret.get())}, text, mac);
    return mac;
}

//  Returns whether the name at offset in message equals name. The owner of a signature may be compressed, so it is
//  expanded before the comparison.
bool ownerIs(View message, std::size_t offset, const std::string& name) {
    ldns_rdf* found = nullptr;
    if (ldns_wire2dname(&found, message.data(), message.size(), &offset) != LDNS_STATUS_OK)
        return false;
    const Rdf owner(found);
    const Rdf expected(ldns_dname_new_frm_str((name + ".").c_str()));
    return expected != nullptr && ldns_dname_compare(owner.get(), expected.get()) == 0;
}

bool sameInLowerCase(View name, View lower) {
    return std::equal(name.begin(), name.end(), lower.begin(), lower.end(),
                      [](std::uint8_t a, std::uint8_t b) { return (a >= 'A' && a <= 'Z' ? a - 'A' + 'a' : a) == b; });
}

//  Returns whether the signature is valid. The MAC is computed with the original ID of the signature (RFC 8945 section
//  4.3.2). The original ID differs from the ID of the answer if a server has forwarded the update to the primary: the
//  forwarding server uses an ID of its own, and the primary's signature covers that ID. The MAC also covers the
//  request's MAC, so a valid answer belongs to this request.
bool isGenuine(View message, const SignaturePlace& place, const Signature& signature, const SignedRequest& request,
               const TsigKey& key) {
    if (!ownerIs(message, place.owner, key.name) || !sameInLowerCase(signature.algorithm, nameBytes(key.algorithm)))
        return false;
    DnsBytes unsignedMessage(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(place.owner));
    std::copy(signature.id.begin(), signature.id.end(), unsignedMessage.begin());
    const unsigned additional = readDns16(&message[additionalAt]) - 1;
    unsignedMessage[additionalAt] = static_cast<std::uint8_t>(additional >> 8);
    unsignedMessage[additionalAt + 1] = static_cast<std::uint8_t>(additional);
    const Result<DnsBytes> mac = computeMac(key, request.mac, unsignedMessage, signature);
    return mac.ok() && mac->size() == signature.mac.size() &&
           memeql_sec(mac->data(), signature.mac.data(), mac->size()) != 0;
}

Status verifyHeader(View message, const SignedRequest& request) {
    if (message.size() < dnsHeaderLength)
        return backendFailed("the answer is too short");
    const std::uint8_t flags = message[flagsAt];
    if ((flags & flagResponse) == 0 || (flags >> 3 & 0xf) != request.opcode)
        return backendFailed("the message is not an answer to this kind of request");
    if (read16(message) != request.id)
        return backendFailed("the answer belongs to another request");
    return {};
}

unsigned headerCode(View message) {
    return message[rcodeAt] & 0xf;
}

//  Returns the failure for an answer without a MAC, which is not authenticated.
Answer unsignedAnswer(View message, unsigned error) {
    const bool refusal = headerCode(message) == rcodeNotAuth && (error == tsigBadKey || error == tsigBadSig);
    return refusal ? serverRefused(tsigErrorWords(error)) : backendFailed(unsignedWords(headerCode(message)));
}

std::string refusalReason(const Signature& signature, const SignedRequest& request) {
    const unsigned error = read16(signature.error);
    if (error != tsigBadTime)
        return tsigErrorWords(error);
    const View time = signature.other.subspan(2);  // RFC 8945 section 5.2.3: the server's time
    return badTimeWords(time.size() == timeLength ? readTime(time) - request.time : 0);
}

//  Requires: verifyHeader has succeeded.
Answer verify(View message, const SignedRequest& request, const TsigKey& key, std::int64_t now) {
    SignaturePlace place;
    const DnsLayout layout = layoutOf(message, place);
    if (layout == DnsLayout::malformed)
        return backendFailed("the answer is malformed");
    if (layout == DnsLayout::bare)
        return backendFailed(unsignedWords(headerCode(message)));
    const Result<Signature> signature = parseSignature(message.subspan(place.data));
    if (!signature.ok())
        return signature.status();
    if (signature->mac.empty())
        return unsignedAnswer(message, read16(signature->error));
    if (!isGenuine(message, place, *signature, request, key))
        return backendFailed("the signature of the answer is wrong");
    const std::int64_t away = std::abs(now - readTime(signature->times));
    if (away > static_cast<std::int64_t>(read16(signature->times.subspan(timeLength))))
        return backendFailed("the answer was signed at another time, " + std::to_string(away) + " s away");
    if (read16(signature->error) != 0)
        return serverRefused(refusalReason(*signature, request));
    return parseMessage(message);
}

}  // namespace

bool isTsigAlgorithm(std::string_view name) {
    return algorithmOf(name) != nullptr;
}

bool isTsigSecret(const std::string& secret) {
    const Rdf bytes = decode(secret);
    return bytes != nullptr && ldns_rdf_size(bytes.get()) != 0;
}

std::size_t signatureLength(const TsigKey& key) {
    constexpr std::size_t fixedLength = 10 + timesLength + 2 + 2 + 2 + 2;  // record header, TSIG fields
    const Algorithm* const algorithm = algorithmOf(key.algorithm);
    const std::size_t mac = algorithm != nullptr ? algorithm->length : 0;
    return nameBytes(key.name).size() + nameBytes(key.algorithm).size() + fixedLength + mac;
}

Result<SignedRequest> signRequest(DnsBytes message, const TsigKey& key, std::int64_t now) {
    constexpr std::uint8_t none[] = {0, 0};
    constexpr std::uint8_t typeClassTtl[] = {0, 250, 0, 255, 0, 0, 0, 0};
    DnsBytes times;
    for (const int shift : {32, 16, 0})
        putDns16(times, static_cast<std::size_t>(now >> shift & 0xffff));
    putDns16(times, tsigFudge);
    const DnsBytes algorithm = nameBytes(key.algorithm);
    const Result<DnsBytes> mac = computeMac(key, {}, message, {algorithm, times, {}, {}, none, none});
    if (!mac.ok())
        return mac.status();

    SignedRequest request;
    request.id = static_cast<std::uint16_t>(readDns16(message.data()));
    request.opcode = message[flagsAt] >> 3 & 0xf;
    request.time = now;
    request.mac.clear();
    putDns16(request.mac, mac->size());
    append(request.mac, *mac);

    DnsBytes data = algorithm;
    append(data, times);
    append(data, request.mac);
    putDns16(data, request.id);
    append(data, none);
    append(data, none);
    ++message[additionalAt + 1];
    append(message, nameBytes(key.name));
    append(message, typeClassTtl);
    putDns16(message, data.size());
    append(message, data);
    request.wire = std::move(message);
    return request;
}

Answer readAnswer(View message, const SignedRequest& request, const TsigKey& key, std::int64_t now) {
    if (Status fault = verifyHeader(message, request); !fault.ok())
        return fault;
    if ((message[flagsAt] & flagTruncated) != 0)
        return backendFailed("the answer is cut short");
    Answer answer = verify(message, request, key, now);
    if (answer.ok())
        return answer;
    Status failure = answer.status();
    failure.failover = isWrongServer(headerCode(message));
    return failure;
}

Answer readDatagram(View message, const SignedRequest& request, const TsigKey& key, std::int64_t now) {
    if (Status fault = verifyHeader(message, request); !fault.ok())
        return fault;
    if (!hasQuestionOf(message, request.wire))
        return backendFailed("the answer belongs to another question");
    return verify(message, request, key, now);
}

}  // namespace rdbopen
