#include "net/local_addresses.h"

#include "files/descriptor.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <optional>
#include <string_view>

namespace rdbopen {

namespace {

//  Returns the hexadecimal number in text, or nothing if text is not such a number or the number is too large.
template <class Number>
std::optional<Number> parseHex(std::string_view text) {
    Number number = 0;
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, number, 16);
    return error == std::errc() && end == last ? std::optional(number) : std::nullopt;
}

constexpr std::string_view blanks = " \t\r";

//  Removes a word or line and the separators after it from the start of text, and returns the word or line. Streams of
//  the standard library are not used, because they would link all locales into the module.
std::string_view takeUntil(std::string_view& text, std::string_view separators) {
    const std::size_t end = std::min(text.find_first_of(separators), text.size());
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(std::min(text.find_first_not_of(separators, end), text.size()));
    return taken;
}

std::optional<Ipv6Address> parsePackedAddress(std::string_view text) {
    Ipv6Address address{};
    if (text.size() != 2 * address.size())
        return std::nullopt;
    for (std::size_t i = 0; i < address.size(); ++i) {
        const auto byte = parseHex<std::uint8_t>(text.substr(2 * i, 2));
        if (!byte)
            return std::nullopt;
        address[i] = *byte;
    }
    return address;
}

}  // namespace

//      20010db8000000000000000000000001 02 40 00 80     eth0
//      address                          |  |  |  flags  interface
//                                       |  |  scope
//                                       |  prefix length        the numbers are hexadecimal
//                                       interface number
LocalAddresses parseLocalAddresses(const std::string& table) {
    LocalAddresses found;
    std::string_view lines = table;
    while (!lines.empty()) {
        std::string_view line = takeUntil(lines, "\n");
        const std::string_view packed = takeUntil(line, blanks);
        takeUntil(line, blanks);  // number
        takeUntil(line, blanks);  // prefix
        takeUntil(line, blanks);  // scope
        const auto address = parsePackedAddress(packed);
        const auto flags = parseHex<unsigned>(takeUntil(line, blanks));
        const std::string_view interface = takeUntil(line, blanks);
        if (!address || !flags || interface.empty())
            continue;
        const auto known = found.try_emplace(*address, LocalAddress{*flags, {}}).first;
        known->second.flags &= *flags;
        known->second.interfaces.emplace_back(interface);
    }
    return found;
}

Result<LocalAddresses> readLocalAddresses() {
    const Descriptor file(open("/proc/self/net/if_inet6", O_RDONLY | O_CLOEXEC));
    if (file.get() < 0)
        return systemFailure(errno);
    const Result<std::string> table = readToEnd(file.get(), SIZE_MAX);
    if (!table.ok())
        return table.status();
    return parseLocalAddresses(*table);
}

}  // namespace rdbopen
