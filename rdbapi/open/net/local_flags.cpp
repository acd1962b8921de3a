#include "net/local_flags.h"

#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <sstream>
#include <string_view>
#include <unistd.h>

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

//  Closed also when memory runs short while it is read.
struct Descriptor {
    explicit Descriptor(const char* path) : number(open(path, O_RDONLY | O_CLOEXEC)) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (number >= 0)
            close(number);
    }
    const int number;
};

int readAll(int descriptor, std::string& text) {
    char part[4096];
    for (;;) {
        const ssize_t taken = read(descriptor, part, sizeof part);
        if (taken == 0)
            return 0;
        if (taken < 0 && errno != EINTR)
            return errno;
        if (taken > 0)
            text.append(part, static_cast<std::size_t>(taken));
    }
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

int readLocalFlags(LocalFlags& flags) {
    const Descriptor descriptor("/proc/self/net/if_inet6");
    if (descriptor.number < 0)
        return errno;
    std::string table;
    const int error = readAll(descriptor.number, table);
    if (error == 0)
        flags = parseLocalFlags(table);
    return error;
}

}  // namespace rdbopen
