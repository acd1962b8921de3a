//  The slots of keys: published values, and those of an independent model (tests/support/redis_slots.py).
#include "redis/slots.h"

#include <fstream>
#include <gtest/gtest.h>
#include <string>

namespace {

using rdbopen::redisSlot;

//  0x31c3 is the check value of CRC-16/XMODEM. The slots of "foo" and "bar" are those of CLUSTER KEYSLOT of Redis.
TEST(RedisSlots, ArePublishedValues) {
    EXPECT_EQ(redisSlot("123456789"), 0x31c3);
    EXPECT_EQ(redisSlot("foo"), 12182);
    EXPECT_EQ(redisSlot("bar"), 5061);
    EXPECT_EQ(redisSlot(""), 0);
}

TEST(RedisSlots, OfKeysWithTheSameTextInTheFirstBracesAreTheSame) {
    const std::uint16_t slot = redisSlot("host1");
    for (const char* key : {"rdb:tag:{host1}", "rdb:value:{host1}", "rdb:changed:{host1}", "{host1}{host2}"})
        EXPECT_EQ(redisSlot(key), slot) << key;
    EXPECT_EQ(redisSlot("{{bar}}zap"), redisSlot("{bar"));
    EXPECT_NE(redisSlot("foo{}{bar}"), redisSlot("bar"));
}

std::string bytesOf(const std::string& hexadecimal) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hexadecimal.size(); i += 2)
        bytes.push_back(static_cast<char>(std::stoi(hexadecimal.substr(i, 2), nullptr, 16)));
    return bytes;
}

TEST(RedisSlots, EqualThoseOfTheModel) {
    std::ifstream file(TEST_DATA "/redis_slots.tsv");
    std::string line;
    std::getline(file, line);
    int rows = 0;
    for (; std::getline(file, line); ++rows) {
        const std::size_t tab = line.find('\t');
        ASSERT_NE(tab, std::string::npos) << line;
        EXPECT_EQ(redisSlot(bytesOf(line.substr(0, tab))), std::stoi(line.substr(tab + 1))) << line;
    }
    EXPECT_GT(rows, 600);
}

}  // namespace
