//  Authentication of answers. The test builds and signs the answers. An answer is authentic only if its signature
//  covers the request.
#include "dns/tsig.h"

#include "dns/words.h"
#include "open_dns_support.h"

#include <gtest/gtest.h>

namespace {

using namespace opentest;
using namespace rdbopen;

constexpr std::uint16_t typeText = 16;

SignedRequest requestWith(const TsigKey& key = testKey()) {
    Result<SignedRequest> request = signRequest(queryMessage(4711, "host1.example.org", typeAaaa), key, 1700000000);
    EXPECT_TRUE(request.ok());
    return *request;
}

Signing signingFor(const SignedRequest& request, const TsigKey& key = testKey()) {
    Signing signing;
    signing.key = key;
    signing.time = request.time;
    return signing;
}

DnsBytes answerFor(const SignedRequest& request, unsigned rcode = 0) {
    return plainAnswer(request.id, 0, rcode, {{"host1.example.org", typeText, fromHex("03 616263")}});
}

Answer read(const DnsBytes& message, const SignedRequest& request, const TsigKey& key = testKey()) {
    return readAnswer(message, request, key, request.time);
}

Answer readSigned(const SignedRequest& request, const Signing& signing, unsigned rcode = 0) {
    return read(signMessage(answerFor(request, rcode), request.mac, signing), request);
}

TEST(TsigSecret, IsBase64OfAtLeastOneByte) {
    EXPECT_TRUE(isTsigSecret(testSecret));
    EXPECT_TRUE(isTsigSecret("QQ=="));
    for (const char* const other : {"", "*", "QQ=", "Q", "QQ==*", "secret!"})
        EXPECT_FALSE(isTsigSecret(other)) << other;
}

TEST(TsigRequest, IsSignedAsTheStandardRequires) {
    for (const char* const algorithm : {"hmac-sha1", "hmac-sha256", "hmac-sha384", "hmac-sha512"}) {
        const TsigKey key = testKey(algorithm);
        const SignedRequest request = requestWith(key);
        const DnsBytes bare = queryMessage(4711, "host1.example.org", typeAaaa);
        EXPECT_EQ(toHex(request.wire), toHex(signMessage(bare, {}, signingFor(request, key)))) << algorithm;
        EXPECT_EQ(request.wire.size(), bare.size() + signatureLength(key)) << algorithm;
    }
}

TEST(TsigRequest, CannotBeSignedWithoutASecret) {
    EXPECT_FALSE(signRequest(queryMessage(1, "a", 1), {"key1", "hmac-sha256", "*"}, 0).ok());
    EXPECT_FALSE(signRequest(queryMessage(1, "a", 1), {"key1", "hmac-md5", testSecret}, 0).ok());
}

TEST(TsigAnswer, AnAnswerSignedWithTheRequestsMacIsAuthentic) {
    for (const char* const algorithm : {"hmac-sha1", "hmac-sha256", "hmac-sha384", "hmac-sha512"}) {
        const TsigKey key = testKey(algorithm);
        const SignedRequest request = requestWith(key);
        const DnsBytes message = signMessage(answerFor(request), request.mac, signingFor(request, key));
        EXPECT_EQ(read(message, request, key).status().code, errorNone) << algorithm;
    }
}

TEST(TsigAnswer, ASignedErrorCodeIsAuthentic) {
    const SignedRequest request = requestWith();
    const Answer answer = readSigned(request, signingFor(request), 5);
    ASSERT_EQ(answer.status().code, errorNone);
    EXPECT_EQ(rcodeOf(**answer), 5U);
}

TEST(TsigAnswer, AnUnsignedAnswerIsNeverAuthentic) {
    const SignedRequest request = requestWith();
    for (unsigned rcode = 0; rcode < 16; ++rcode)
        EXPECT_EQ(read(answerFor(request, rcode), request).status().code, errorBackendFailed) << rcode;
    EXPECT_EQ(read(answerFor(request), request).status().reason, "the answer is not signed");
    EXPECT_EQ(read(answerFor(request, 2), request).status().reason,
              "the answer is not signed (SERVFAIL: the server failed; its log says why)");
}

TEST(TsigAnswer, UnsignedNotAuthAndRefusedMayMeanAWrongKey) {
    const SignedRequest request = requestWith();
    const std::string key = "the key's name, algorithm or secret is wrong, or ";
    const std::string not_auth = "the server is not the primary of the zone";
    EXPECT_EQ(read(answerFor(request, rcodeNotAuth), request).status().reason,
              "the answer is not signed (NOTAUTH: " + key + not_auth + ")");
    EXPECT_EQ(rcodeWords(rcodeNotAuth), "NOTAUTH: " + not_auth);
    const std::string refused = rcodeWords(rcodeRefused).substr(std::strlen("REFUSED: "));
    EXPECT_EQ(read(answerFor(request, rcodeRefused), request).status().reason,
              "the answer is not signed (REFUSED: " + key + refused + ")");
}

TEST(TsigAnswer, NotAuthRefusedAndNotImpMeanTheWrongServer) {
    const SignedRequest request = requestWith();
    for (unsigned rcode = 0; rcode < 16; ++rcode) {
        const bool wrong = rcode == rcodeNotAuth || rcode == rcodeRefused || rcode == rcodeNotImp;
        EXPECT_EQ(isWrongServer(rcodeOf(**readSigned(request, signingFor(request), rcode))), wrong) << rcode;
        EXPECT_EQ(read(answerFor(request, rcode), request).status().failover, wrong) << rcode;
    }
}

TEST(TsigAnswer, AnEmptySignatureIsARefusalOnlyForBadKeyAndBadSig) {
    const SignedRequest request = requestWith();
    Signing signing = signingFor(request);
    signing.empty = true;
    for (unsigned rcode = 0; rcode < 16; ++rcode)
        for (signing.error = 0; signing.error < 32; ++signing.error) {
            const bool refusal = rcode == 9 && (signing.error == 16 || signing.error == 17);
            EXPECT_EQ(readSigned(request, signing, rcode).status().code,
                      refusal ? errorServerRefused : errorBackendFailed)
                << rcode << " " << signing.error;
        }
}

TEST(TsigAnswer, ASignedTsigErrorIsARefusalWithAText) {
    const SignedRequest request = requestWith();
    Signing signing = signingFor(request);
    const struct {
        unsigned error;
        const char* reason;
    } rows[] = {
        {16, "BADSIG: the password is not the secret that the server has for the key"},
        {17, "BADKEY: the server does not know the key with this algorithm, or does not allow it to do this"},
        {18, "BADTIME: the server refuses the time of the message"},
        {22, "BADTRUNC: the server does not take signatures of this length"},
        {23, "the server refuses the signature with code 23"},
    };
    for (const auto& row : rows) {
        signing.error = row.error;
        const Answer answer = readSigned(request, signing, 9);
        EXPECT_EQ(answer.status().code, errorServerRefused) << row.error;
        EXPECT_EQ(answer.status().reason, row.reason);
    }
}

TEST(TsigAnswer, BadTimeReportsWhichClockIsAhead) {
    const SignedRequest request = requestWith();
    Signing signing = signingFor(request);
    signing.error = tsigBadTime;
    signing.other = timeBytes(request.time + 4000);
    EXPECT_EQ(readSigned(request, signing, 9).status().reason,
              "BADTIME: the clocks differ, the server's is 4000 s ahead");
    signing.other = timeBytes(request.time - 301);
    EXPECT_EQ(readSigned(request, signing, 9).status().reason,
              "BADTIME: the clocks differ, the server's is 301 s behind");
}

TEST(TsigAnswer, IsValidOnlyWithinTheFudgeOfItsTime) {
    const SignedRequest request = requestWith();
    Signing signing = signingFor(request);
    for (const std::int64_t away : {-301, -300, 0, 300, 301}) {
        signing.time = request.time + away;
        EXPECT_EQ(readSigned(request, signing).status().code, std::abs(away) <= 300 ? errorNone : errorBackendFailed)
            << away;
    }
    EXPECT_EQ(readSigned(request, signing).status().reason, "the answer was signed at another time, 301 s away");
}

//  A server may compress the key's name if the name already occurs in the message.
TEST(TsigAnswer, MayPointToTheKeysName) {
    const SignedRequest request = requestWith();
    const DnsBytes bare = plainAnswer(request.id, 0, 0, {{"key1", typeText, fromHex("03 616263")}});
    DnsBytes message = signMessage(bare, request.mac, signingFor(request));
    const auto owner = message.begin() + static_cast<std::ptrdiff_t>(bare.size());
    message.erase(owner, owner + 6);
    const DnsBytes pointer = fromHex("c00c");
    message.insert(message.begin() + static_cast<std::ptrdiff_t>(bare.size()), pointer.begin(), pointer.end());
    EXPECT_EQ(read(message, request).status().code, errorNone);
    message[bare.size() + 1] = 0x0d;
    EXPECT_EQ(read(message, request).status().code, errorBackendFailed);
    message[bare.size() + 1] = static_cast<std::uint8_t>(bare.size());
    EXPECT_EQ(read(message, request).status().code, errorBackendFailed);
}

TEST(TsigAnswer, AnAnswerSignedWithAnotherKeyIsNeverAuthentic) {
    const SignedRequest request = requestWith();
    const TsigKey others[] = {{"key2", "hmac-sha256", testSecret},
                              {"key1", "hmac-sha512", testSecret},
                              {"key1", "hmac-sha256", "MTIzNDU2Nzg5MDEyMzQ1Njc4OTAxMjM0NTY3ODkwMTM="}};
    for (const TsigKey& other : others)
        EXPECT_EQ(readSigned(request, signingFor(request, other)).status().reason,
                  "the signature of the answer is wrong");
}

TEST(TsigAnswer, AnAnswerSignedForAnotherRequestIsNeverAuthentic) {
    const SignedRequest request = requestWith();
    DnsBytes mac = request.mac;
    mac.back() ^= 1;
    EXPECT_EQ(read(signMessage(answerFor(request), mac, signingFor(request)), request).status().code,
              errorBackendFailed);
    EXPECT_EQ(read(signMessage(answerFor(request), {}, signingFor(request)), request).status().code,
              errorBackendFailed);
}

//  The primary server signs its answer with the forwarder's ID. The forwarder then replaces this ID by the request's.
TEST(TsigAnswer, AForwardedAnswerIsAuthenticByItsOriginalId) {
    const SignedRequest request = requestWith();
    for (const unsigned forwarders : {4712U, 4711U ^ 0xffffU}) {
        const DnsBytes bare = plainAnswer(forwarders, 0, 0, {{"host1.example.org", typeText, fromHex("03 616263")}});
        DnsBytes message = signMessage(bare, request.mac, signingFor(request));
        EXPECT_EQ(read(message, request).status().reason, "the answer belongs to another request");
        message[0] = static_cast<std::uint8_t>(request.id >> 8);
        message[1] = static_cast<std::uint8_t>(request.id);
        const Answer answer = read(message, request);
        ASSERT_EQ(answer.status().code, errorNone) << answer.status().reason;
        EXPECT_EQ(ldns_pkt_id(answer->get()), request.id);
    }
}

TEST(TsigAnswer, AnAnswerWithAWrongHeaderFieldIsNeverAuthentic) {
    const SignedRequest request = requestWith();
    const struct {
        std::size_t at;
        std::uint8_t flip;
        const char* reason;
    } rows[] = {
        {0, 0x01, "the answer belongs to another request"},
        {1, 0x80, "the answer belongs to another request"},
        {2, 0x80, "the message is not an answer to this kind of request"},
        {2, 0x28, "the message is not an answer to this kind of request"},
        {2, 0x02, "the answer is cut short"},
    };
    for (const auto& row : rows) {
        DnsBytes message = answerFor(request);
        message[row.at] ^= row.flip;
        EXPECT_EQ(read(signMessage(message, request.mac, signingFor(request)), request).status().reason, row.reason);
    }
}

//  The case of a letter in the key's or the algorithm's name may change, because both names are signed in lower case
//  (RFC 8945 section 4.3.3).
bool onlyChangesCase(const DnsBytes& message, std::size_t signature, std::size_t at, int bit) {
    constexpr std::size_t keyFirst = 1;
    constexpr std::size_t keyLast = 4;
    constexpr std::size_t algorithmFirst = 17;
    constexpr std::size_t algorithmLast = 27;
    const std::size_t offset = at - signature;
    const bool inName = at >= signature && ((offset >= keyFirst && offset <= keyLast) ||
                                            (offset >= algorithmFirst && offset <= algorithmLast));
    return inName && bit == 5 && std::isalpha(message[at]) != 0;
}

TEST(TsigAnswer, AnInvertedBitIsAcceptedOnlyIfItChangesTheCaseOfALetterInAName) {
    const SignedRequest request = requestWith();
    const DnsBytes bare = answerFor(request);
    const DnsBytes message = signMessage(bare, request.mac, signingFor(request));
    for (std::size_t at = 0; at < message.size(); ++at)
        for (int bit = 0; bit < 8; ++bit) {
            DnsBytes altered = message;
            altered[at] ^= static_cast<std::uint8_t>(1 << bit);
            const bool counts = read(altered, request).ok();
            EXPECT_EQ(counts, onlyChangesCase(message, bare.size(), at, bit)) << "byte " << at << " bit " << bit;
        }
}

TEST(TsigAnswer, ATruncatedOrExtendedAnswerIsNeverAuthentic) {
    const SignedRequest request = requestWith();
    const DnsBytes message = signMessage(answerFor(request), request.mac, signingFor(request));
    for (std::size_t size = 0; size < message.size(); ++size)
        EXPECT_EQ(
            read(DnsBytes(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(size)), request).status().code,
            errorBackendFailed);
    DnsBytes longer = message;
    longer.push_back(0);
    EXPECT_EQ(read(longer, request).status().code, errorBackendFailed);
    longer.insert(longer.end(), message.end() - 80, message.end());
    EXPECT_EQ(read(longer, request).status().code, errorBackendFailed);
}

TEST(TsigAnswer, AnAnswerWithTwoSignaturesIsNeverAuthentic) {
    const SignedRequest request = requestWith();
    const Signing signing = signingFor(request);
    const DnsBytes twice = signMessage(signMessage(answerFor(request), request.mac, signing), request.mac, signing);
    EXPECT_EQ(read(twice, request).status().reason, "the answer is malformed");
}

TEST(DnsWords, EachCodeHasAText) {
    const struct {
        unsigned code;
        const char* text;
    } rows[] = {
        {1, "FORMERR: the server does not understand the message"},
        {2, "SERVFAIL: the server failed; its log says why"},
        {3, "NXDOMAIN: the server does not have the name"},
        {4, "NOTIMP: the server does not take updates"},
        {5,
         "REFUSED: the key may not do this (its policy needs AAAA and HTTPS), or the zone is frozen, takes no updates "
         "or is not on this server"},
        {6, "YXDOMAIN: a name exists that must not"},
        {7, "YXRRSET: a record set exists that must not"},
        {8, "NXRRSET: a record set is missing"},
        {9, "NOTAUTH: the server is not the primary of the zone"},
        {10, "NOTZONE: the name is not in the zone"},
        {11, "the server answers with code 11"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(rcodeWords(row.code), row.text);
}

}  // namespace
