#include "resolver.h"

#include <algorithm>

#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <netdb.h>
#include <resolv.h>

namespace check {

namespace {

constexpr int wait_seconds = 2;  // for the answer of one name server
constexpr int tries = 1;
constexpr std::size_t max_answer = 65535;

std::string words(int error) {
    if (error == HOST_NOT_FOUND)
        return "the resolver does not know this name";
    return "the resolver does not answer or has failed";
}

//  Reads a message from its start. ok() is false after a read beyond the end or a malformed name.
class Reader {
public:
    explicit Reader(std::span<const std::uint8_t> bytes) : at_(bytes.data()), end_(bytes.data() + bytes.size()) {}

    bool ok() const { return ok_; }

    //  Returns the start of the next count bytes, which exist if ok().
    const std::uint8_t* skip(std::size_t count) {
        const std::uint8_t* const first = at_;
        ok_ = ok_ && count <= static_cast<std::size_t>(end_ - at_);
        at_ += ok_ ? count : 0;
        return first;
    }

    unsigned number16() {
        const std::uint8_t* const bytes = skip(2);
        return ok_ ? static_cast<unsigned>(bytes[0] << 8 | bytes[1]) : 0;
    }

    void skipName() {
        const int length = ok_ ? dn_skipname(at_, end_) : -1;
        ok_ = length >= 0;
        skip(ok_ ? static_cast<std::size_t>(length) : 0);
    }

private:
    const std::uint8_t* at_;
    const std::uint8_t* end_;
    bool ok_ = true;
};

}  // namespace

//  A truncated answer is not requested again over TCP, because that connection would have no time limit.
ResolverAnswer askResolver(const std::string& name) {
    struct __res_state state = {};
    ResolverAnswer found;
    if (res_ninit(&state) != 0) {
        found.problem = "the resolver cannot be used";
        return found;
    }
    state.retrans = wait_seconds;
    state.retry = tries;
    state.options |= RES_IGNTC;
    std::vector<std::uint8_t> answer(max_answer);
    const int length = res_nquery(&state, name.c_str(), C_IN, T_AAAA, answer.data(), static_cast<int>(answer.size()));
    if (length >= 0)
        found = readResolverAnswer({answer.data(), std::min(answer.size(), static_cast<std::size_t>(length))});
    else if (state.res_h_errno != NO_DATA)
        found.problem = words(state.res_h_errno);
    res_nclose(&state);
    return found;
}

ResolverAnswer readResolverAnswer(std::span<const std::uint8_t> answer) {
    ResolverAnswer found;
    Reader reader(answer);
    reader.skip(4);  // id and flags
    const unsigned questions = reader.number16();
    const unsigned records = reader.number16();
    reader.skip(4);  // numbers of the other records
    for (unsigned i = 0; i < questions && reader.ok(); ++i) {
        reader.skipName();
        reader.skip(4);  // type and class
    }
    for (unsigned i = 0; i < records && reader.ok(); ++i) {
        reader.skipName();
        const unsigned type = reader.number16();
        reader.skip(2);  // class
        const std::uint32_t high = reader.number16();
        const std::uint32_t ttl = high << 16 | reader.number16();
        const unsigned length = reader.number16();
        const std::uint8_t* const data = reader.skip(length);
        if (!reader.ok() || type != ns_t_aaaa || length != sizeof(in6_addr))
            continue;
        char text[INET6_ADDRSTRLEN];
        found.ttl = found.addresses.empty() ? ttl : std::min(found.ttl, ttl);
        found.addresses.emplace_back(inet_ntop(AF_INET6, data, text, sizeof text));
    }
    if (!reader.ok())
        found = {"the answer of the resolver is malformed", {}, 0};
    return found;
}

}  // namespace check
