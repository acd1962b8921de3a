#include "net/local_flags.h"

#include "files/descriptor.h"

#include <charconv>
#include <fcntl.h>
#include <sstream>
#include <string_view>

namespace rdbopen {

namespace {

template <class Number>
bool parseHex(std::string_view text, Number& number) {
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, number, 16);
    return error == std::errc() && end == last;
}

bool parsePackedAddress(std::string_view text, Ipv6Address& address) {
    if (text.size() != 2 * address.size())
        return false;
    for (std::size_t i = 0; i < address.size(); ++i)
        if (!parseHex(text.substr(2 * i, 2), address[i]))
            return false;
    return true;
}

}  // namespace

//      20010db8000000000000000000000001 02 40 00 80     eth0
//      address                          |  |  |  flags  interface
//                                       |  |  scope
//                                       |  prefix length        all in hexadecimal digits
//                                       interface number
LocalFlags parseLocalFlags(const std::string& table) {
    LocalFlags found;
    std::istringstream lines(table);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string packed;
        std::string number;
        std::string prefix;
        std::string scope;
        std::string flags_text;
        words >> packed >> number >> prefix >> scope >> flags_text;
        Ipv6Address address{};
        unsigned flags = 0;
        if (!parsePackedAddress(packed, address) || !parseHex(flags_text, flags))
            continue;
        const auto [known, added] = found.try_emplace(address, flags);
        if (!added)
            known->second &= flags;
    }
    return found;
}

Result<LocalFlags> readLocalFlags() {
    const Descriptor file(open("/proc/self/net/if_inet6", O_RDONLY | O_CLOEXEC));
    if (file.get() < 0)
        return systemFailure(errno);
    const Result<std::string> table = readToEnd(file.get(), SIZE_MAX);
    if (!table.ok())
        return table.status();
    return parseLocalFlags(*table);
}

}  // namespace rdbopen
