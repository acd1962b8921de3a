//  The slot of a key: a Redis Cluster divides all keys into 16384 slots, and each slot belongs to one master
//  (https://redis.io/docs/reference/cluster-spec).
//
//      rdb:value:{host1}    the slot of a key with braces is that of the text in them: CRC-16/XMODEM of "host1" mod 16384
//      rdb:value:{}         without text in the first braces it is that of the whole key
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
