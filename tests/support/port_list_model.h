//  A second implementation of the parser of port lists: it splits the list at the commas, then examines each piece.
#ifndef TESTS_SUPPORT_PORT_LIST_MODEL_H
#define TESTS_SUPPORT_PORT_LIST_MODEL_H

#include <cstdint>
#include <string>
#include <vector>

//  Reads a decimal number as strtol(3) does, limited to the range of 64 bits.
inline std::int64_t modelDecimal(const std::string& text) {
    std::size_t i = text.find_first_not_of(" \t\n\v\f\r");
    if (i == std::string::npos)
        return 0;
    const bool minus = text[i] == '-';
    if (text[i] == '-' || text[i] == '+')
        ++i;
    std::uint64_t number = 0;
    const std::uint64_t top = minus ? std::uint64_t{1} << 63 : (std::uint64_t{1} << 63) - 1;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        const auto digit = static_cast<std::uint64_t>(text[i] - '0');
        number = number > (top - digit) / 10 ? top : number * 10 + digit;
    }
    return static_cast<std::int64_t>(minus ? 0 - number : number);
}

inline std::vector<std::uint16_t> modelPorts(const std::string& list) {
    std::vector<std::uint16_t> ports;
    std::size_t start = 0;
    for (bool more = true; more;) {
        const std::size_t comma = list.find(',', start);
        more = comma != std::string::npos;
        std::string item;
        for (const char c : list.substr(start, more ? comma - start : std::string::npos))
            if (c != '\r' && c != '\n')
                item.push_back(c);
        start = comma + 1;
        const std::size_t first = item.find_first_not_of(" \t");
        item.erase(0, first == std::string::npos ? item.size() : first);
        if (item.size() > 38)
            break;
        const std::string text = item.substr(0, item.find('\0'));
        if (const auto port = static_cast<std::uint16_t>(modelDecimal(text)); port != 0)
            ports.push_back(port);
    }
    return ports;
}

#endif
