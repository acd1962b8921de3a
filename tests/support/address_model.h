//  A second implementation of the address filter and of the address text. The filter compares prefixes as strings of
//  binary digits. A separate function writes the compressed form (RFC 5952, section 4, as inet_ntop(3) writes it).
#ifndef TESTS_SUPPORT_ADDRESS_MODEL_H
#define TESTS_SUPPORT_ADDRESS_MODEL_H

#include <array>
#include <bitset>
#include <cstdint>
#include <cstdio>
#include <string>

using AddressBytes = std::array<std::uint8_t, 16>;

inline bool modelIsPublished(const AddressBytes& bytes) {
    std::string bits;
    for (const std::uint8_t byte : bytes)
        bits += std::bitset<8>(byte).to_string();
    const auto begins = [&](const std::string& prefix) { return bits.starts_with(prefix); };
    const std::string zeros(128, '0');
    if (bits == zeros)
        return true;
    return !begins("11111111") && !begins("111111101") && !begins(zeros.substr(0, 80) + std::string(16, '1')) &&
           !begins(zeros.substr(0, 96));
}

//  Requires a published address. inet_ntop(3) writes no published address with an IPv4 part.
inline std::string modelAddressText(const AddressBytes& bytes) {
    std::array<unsigned, 8> words{};
    for (std::size_t i = 0; i < 8; ++i)
        words[i] = bytes[2 * i] * 256U + bytes[2 * i + 1];
    std::size_t best = 0, best_length = 1;
    for (std::size_t i = 0; i < 8; ++i) {
        std::size_t length = 0;
        while (i + length < 8 && words[i + length] == 0)
            ++length;
        if (length > best_length)
            best = i, best_length = length;
    }
    std::string text;
    for (std::size_t i = 0; i < 8; ++i) {
        if (best_length > 1 && i == best) {
            text += "::";
            i += best_length - 1;
            continue;
        }
        if (!text.empty() && text.back() != ':')
            text += ':';
        char word[5];
        std::snprintf(word, sizeof word, "%x", words[i] & 0xffffU);
        text += word;
    }
    return text;
}

#endif
