#include "redis/slots.h"

namespace rdbopen {

namespace {

//  CRC-16/XMODEM: polynomial 0x1021, initial value 0, most significant bit first. A host has only a few names, so the
//  code does without a lookup table.
std::uint16_t crc16(std::string_view bytes) noexcept {
    constexpr unsigned polynomial = 0x1021;
    unsigned crc = 0;
    for (const char byte : bytes) {
        crc ^= static_cast<unsigned>(static_cast<unsigned char>(byte)) << 8;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc << 1) ^ ((crc & 0x8000U) != 0 ? polynomial : 0);
    }
    return static_cast<std::uint16_t>(crc);
}

//  Returns the part of key that determines its slot.
std::string_view hashTag(std::string_view key) noexcept {
    const std::size_t open = key.find('{');
    if (open == std::string_view::npos)
        return key;
    const std::size_t close = key.find('}', open);
    if (close == std::string_view::npos || close == open + 1)
        return key;
    return key.substr(open + 1, close - open - 1);
}

}  // namespace

std::uint16_t redisSlot(std::string_view key) noexcept {
    return crc16(hashTag(key)) % redisSlots;
}

}  // namespace rdbopen
