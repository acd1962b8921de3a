//  The slot of a key: a Redis Cluster divides all keys into 16384 slots, and each slot belongs to one master
//  (https://redis.io/docs/reference/cluster-spec).
//
//      rdb:value:{host1}    CRC-16/XMODEM of "host1", the text in the first braces, modulo 16384
//      rdb:value:{}         CRC-16/XMODEM of the whole key, because the first braces are empty, modulo 16384
//
//  Threads: any thread may call these functions.
#ifndef RDBAPI_OPEN_REDIS_SLOTS_H
#define RDBAPI_OPEN_REDIS_SLOTS_H

#include <cstdint>
#include <string_view>

namespace rdbopen {

inline constexpr std::uint16_t redisSlots = 16384;

//  Returns the slot of key, from 0 to redisSlots - 1.
std::uint16_t redisSlot(std::string_view key) noexcept;

}  // namespace rdbopen

#endif
