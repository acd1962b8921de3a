#include "request/address_filter.h"

#include "net/url.h"

#include <algorithm>
#include <arpa/inet.h>
#include <fnmatch.h>

namespace rdbopen {

namespace {

constexpr unsigned addressBits = 128;
constexpr AddressFilter::Prefix uniqueLocal{{0xfc}, 7};  // RFC 4193 section 3.1

//  Addresses that the service does not publish (RFC 4291 section 2): multicast; link-local and site-local; IPv4-mapped;
//  loopback and IPv4-compatible, together with the unspecified address, which no interface has.
constexpr AddressFilter::Prefix neverPublished[] = {
    {{0xff}, 8}, {{0xfe, 0x80}, 9}, {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff}, 96}, {{}, 96}};

//  Calls `take` with each element of a list that is separated by commas, until a call fails.
template <class Take>
Status forEachOf(std::string_view list, Take take) {
    for (;;) {
        const std::size_t end = std::min(list.find(','), list.size());
        if (Status failed = take(list.substr(0, end)); !failed.ok() || end == list.size())
            return failed;
        list.remove_prefix(end + 1);
    }
}

std::optional<Ipv6Address> parseAddress(std::string_view text) {
    Ipv6Address address{};
    return inet_pton(AF_INET6, std::string(text).c_str(), address.data()) == 1 ? std::optional(address) : std::nullopt;
}

//  Returns address with all bits after the first length bits set to 0.
Ipv6Address masked(Ipv6Address address, unsigned length) {
    for (unsigned i = 0; i < address.size(); ++i) {
        const unsigned bits = std::clamp(length, 8 * i, 8 * i + 8) - 8 * i;
        address[i] = static_cast<std::uint8_t>(address[i] & 0xff00U >> bits);
    }
    return address;
}

bool has(const AddressFilter::Prefix& prefix, const Ipv6Address& address) {
    return masked(address, prefix.length) == prefix.address;
}

bool matchesOne(const std::vector<std::string>& patterns, const std::string& name) {
    return std::any_of(patterns.begin(), patterns.end(),
                       [&name](const std::string& pattern) { return fnmatch(pattern.c_str(), name.c_str(), 0) == 0; });
}

Status malformedSkip() {
    return malformedUrl("skip is not a list of ula, temporary, deprecated and if:NAME, the words at most once");
}

Status takePrefix(std::string_view text, std::vector<AddressFilter::Prefix>& prefixes) {
    const std::size_t slash = std::min(text.find('/'), text.size());
    const auto address = parseAddress(text.substr(0, slash));
    const auto length =
        slash == text.size() ? std::optional(addressBits) : parseNumber(text.substr(slash + 1), addressBits);
    if (!address || !length)
        return malformedUrl("only is not a list of IPv6 prefixes, as in 2001:db8:1::/48");
    if (masked(*address, *length) != *address)
        return malformedUrl("only has a prefix with bits after its length; 2001:db8:1::/48 has none");
    prefixes.push_back({*address, *length});
    return {};
}

}  // namespace

Status AddressFilter::takeOnly(std::string_view value) {
    return forEachOf(value, [this](std::string_view text) { return takePrefix(text, only); });
}

Status AddressFilter::takeSkip(std::string_view value) {
    static constexpr std::string_view interfaceMark = "if:";
    static constexpr struct {
        std::string_view word;
        bool AddressFilter::*flag;
    } words[] = {{"ula", &AddressFilter::skipUla},
                 {"temporary", &AddressFilter::skipTemporary},
                 {"deprecated", &AddressFilter::skipDeprecated}};
    return forEachOf(value, [this](std::string_view text) {
        if (text.starts_with(interfaceMark) && text.size() > interfaceMark.size()) {
            skipInterfaces.emplace_back(text.substr(interfaceMark.size()));
            return Status{};
        }
        const auto* found =
            std::find_if(std::begin(words), std::end(words), [text](const auto& known) { return known.word == text; });
        if (found == std::end(words) || this->*found->flag)
            return malformedSkip();
        this->*found->flag = true;
        return Status{};
    });
}

bool AddressFilter::passes(const std::string& address, const LocalAddresses& local) const {
    const auto binary = parseAddress(address);
    if (!binary)
        return only.empty();
    if (!only.empty() &&
        std::none_of(only.begin(), only.end(), [&binary](const Prefix& prefix) { return has(prefix, *binary); }))
        return false;
    if (skipUla && has(uniqueLocal, *binary))
        return false;
    const auto known = local.find(*binary);
    if (known == local.end())
        return true;
    const auto& [flags, interfaces] = known->second;
    const unsigned unwanted = (skipTemporary ? flagTemporary : 0U) | (skipDeprecated ? flagDeprecated : 0U);
    return (flags & unwanted) == 0 &&
           !std::all_of(interfaces.begin(), interfaces.end(),
                        [this](const std::string& name) { return matchesOne(skipInterfaces, name); });
}

Result<std::vector<std::string>> AddressFilter::apply(const std::vector<std::string>& addresses) const {
    const bool needed = skipTemporary || skipDeprecated || !skipInterfaces.empty();
    const Result<LocalAddresses> local = needed ? readLocalAddresses() : LocalAddresses();
    if (!local.ok())
        return failedTo("the flags of the addresses cannot be read", local.status());
    std::vector<std::string> passed;
    std::copy_if(addresses.begin(), addresses.end(), std::back_inserter(passed),
                 [&](const std::string& address) { return passes(address, *local); });
    return passed;
}

std::vector<Ipv6Address> AddressFilter::passing(const LocalAddresses& local) const {
    std::vector<Ipv6Address> found;
    for (const auto& entry : local) {
        const Ipv6Address& address = entry.first;
        const bool published = std::none_of(std::begin(neverPublished), std::end(neverPublished),
                                            [&address](const Prefix& prefix) { return has(prefix, address); });
        char text[INET6_ADDRSTRLEN];
        if (published && passes(inet_ntop(AF_INET6, address.data(), text, sizeof text), local))
            found.push_back(address);
    }
    return found;
}

bool AddressFilter::leavesNothingOf(const LocalAddresses& local) const {
    return passing(local).empty() && !AddressFilter().passing(local).empty();
}

std::string filterAdvice(const AddressFilter& filter, std::string_view urlName) {
    const Result<LocalAddresses> local = readLocalAddresses();
    if (!local.ok() || !filter.leavesNothingOf(*local))
        return {};
    return std::string(urlName) +
           ": only and skip leave none of the present addresses of this host, so none is published";
}

}  // namespace rdbopen
