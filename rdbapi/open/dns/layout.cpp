#include "dns/layout.h"

#include <algorithm>

namespace rdbopen {

namespace {

constexpr unsigned typeTsig = 250;
constexpr std::size_t countsAt = 4;      // four counts: questions, then records of three sections
constexpr std::size_t questionTail = 4;  // bytes of type and class
constexpr std::size_t recordTail = 10;   // bytes of type, class, ttl and length of the data
constexpr std::size_t lengthAt = 8;      // offset of the data's length in a record's tail

//  The unread rest of a message. skip and skipName return false if the message ends too early; skipName also returns
//  false for a label of an unknown kind.
class Rest {
public:
    explicit Rest(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

    bool empty() const { return bytes_.empty(); }
    const std::uint8_t* data() const { return bytes_.data(); }
    bool has(std::size_t length) const { return bytes_.size() >= length; }

    bool skip(std::size_t length) {
        if (!has(length))
            return false;
        bytes_ = bytes_.subspan(length);
        return true;
    }

    //  Skips a name, which may end with a compression pointer (RFC 1035 sections 3.1, 4.1.4).
    bool skipName() {
        constexpr unsigned kindMask = 0xc0;
        while (!bytes_.empty()) {
            const unsigned length = bytes_.front();
            if ((length & kindMask) == kindMask)
                return skip(2);
            if ((length & kindMask) != 0)
                return false;
            if (!skip(1 + length))
                return false;
            if (length == 0)
                return true;
        }
        return false;
    }

private:
    std::span<const std::uint8_t> bytes_;
};

bool isSignatureTail(const std::uint8_t* tail) {
    constexpr std::uint8_t fixed[] = {0, typeTsig, 0, 255, 0, 0, 0, 0};
    return std::equal(std::begin(fixed), std::end(fixed), tail);
}

}  // namespace

DnsLayout layoutOf(std::span<const std::uint8_t> message, SignaturePlace& place) {
    Rest rest(message);
    if (!rest.skip(dnsHeaderLength))
        return DnsLayout::malformed;
    const auto count = [&message](std::size_t section) { return readDns16(&message[countsAt + 2 * section]); };
    for (unsigned left = count(0); left != 0; --left)
        if (!rest.skipName() || !rest.skip(questionTail))
            return DnsLayout::malformed;
    const unsigned additional = count(3);
    for (unsigned left = count(1) + count(2) + additional; left != 0; --left) {
        const auto owner = static_cast<std::size_t>(rest.data() - message.data());
        if (!rest.skipName() || !rest.has(recordTail))
            return DnsLayout::malformed;
        const std::uint8_t* const tail = rest.data();
        const std::size_t length = readDns16(tail + lengthAt);
        if (!rest.skip(recordTail + length))
            return DnsLayout::malformed;
        if (readDns16(tail) != typeTsig)
            continue;
        place = {owner, message.size() - length};
        const bool last = left == 1 && additional != 0 && rest.empty();
        return last && isSignatureTail(tail) ? DnsLayout::hasSignature : DnsLayout::malformed;
    }
    return rest.empty() ? DnsLayout::bare : DnsLayout::malformed;
}

//  A valid message does not compress its first name, because no name precedes it. So the bytes of both names are
//  compared.
bool hasQuestionOf(std::span<const std::uint8_t> answer, std::span<const std::uint8_t> request) {
    const auto body = request.subspan(dnsHeaderLength);
    const auto nameEnd = std::find(body.begin(), body.end(), 0) + 1;
    const auto lower = [](std::uint8_t byte) { return byte >= 'A' && byte <= 'Z' ? byte - 'A' + 'a' : byte; };
    const auto nameLength = static_cast<std::size_t>(nameEnd - body.begin());
    if (readDns16(&answer[countsAt]) != 1 || answer.size() < dnsHeaderLength + nameLength + questionTail)
        return false;
    const auto name = answer.subspan(dnsHeaderLength, nameLength);
    return std::equal(name.begin(), name.end(), body.begin(),
                      [&lower](std::uint8_t a, std::uint8_t b) { return lower(a) == lower(b); }) &&
           std::equal(nameEnd, nameEnd + questionTail, name.data() + nameLength);
}

}  // namespace rdbopen
