#include "rdbapi.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <type_traits>

namespace {

//  Returns the bytes of a record. All bytes are zero except those that `fill` changes.
template <class RECORD, class FILL>
std::string bytes_of(FILL fill) {
    RECORD record;
    std::memset(&record, 0, sizeof record);
    fill(record);
    return std::string(reinterpret_cast<const char*>(&record), sizeof record);
}

//  Returns `count` zero bytes, with `text` at `offset`.
std::string zeros_with(size_t count, size_t offset, const std::string& text) {
    std::string bytes(count, '\0');
    return bytes.replace(offset, text.size(), text);
}

TEST(RdbTag, Has256Bytes) {
    EXPECT_EQ(sizeof(RdbTag), 256u);
}

TEST(RdbTag, HoldsTheValueTypeAt4) {
    EXPECT_EQ(bytes_of<RdbTag>([](RdbTag& tag) { tag.valuetype = 6; }), zeros_with(256, 4, "\x06"));
}

TEST(RdbTag, HoldsTheNameAt12) {
    EXPECT_EQ(bytes_of<RdbTag>([](RdbTag& tag) { std::memcpy(tag.name, "host1", 6); }), zeros_with(256, 12, "host1"));
}

TEST(RdbTag, HoldsANameOf79CharactersAndItsTerminatorBefore92) {
    const std::string name(79, 'n');
    EXPECT_EQ(bytes_of<RdbTag>([&](RdbTag& tag) { std::memcpy(tag.name, name.c_str(), sizeof tag.name); }),
              zeros_with(256, 12, name));
    EXPECT_EQ(sizeof(RdbTag::name), 80u);
}

TEST(RdbTag, HoldsTheTagClassAt189) {
    EXPECT_EQ(bytes_of<RdbTag>([](RdbTag& tag) { tag.tagclass = 2; }), zeros_with(256, 189, "\x02"));
}

TEST(RdbTag, HoldsTheImportFlagAt191) {
    EXPECT_EQ(bytes_of<RdbTag>([](RdbTag& tag) { tag.importflag = 1; }), zeros_with(256, 191, "\x01"));
}

TEST(RdbTag, EveryByteBelongsToAMember) {
    EXPECT_TRUE(std::has_unique_object_representations_v<RdbTag>);
}

TEST(RdbSnapshot, Has1104Bytes) {
    EXPECT_EQ(sizeof(RdbSnapshot), 1104u);
}

TEST(RdbSnapshot, HoldsTheNameAt0) {
    const std::string name(79, 'n');
    EXPECT_EQ(bytes_of<RdbSnapshot>([&](RdbSnapshot& s) { std::memcpy(s.name, name.c_str(), sizeof s.name); }),
              zeros_with(1104, 0, name));
    EXPECT_EQ(sizeof(RdbSnapshot::name), 80u);
}

TEST(RdbSnapshot, HoldsTheTimeAt80LowestByteFirst) {
    EXPECT_EQ(bytes_of<RdbSnapshot>([](RdbSnapshot& s) { s.time = 0x0807060504030201; }),
              zeros_with(1104, 80, "\x01\x02\x03\x04\x05\x06\x07\x08"));
}

TEST(RdbSnapshot, TimeIsSigned64Bit) {
    EXPECT_EQ(bytes_of<RdbSnapshot>([](RdbSnapshot& s) { s.time = -1; }), zeros_with(1104, 80, std::string(8, '\xff')));
}

TEST(RdbSnapshot, HoldsTheValueTypeAt96) {
    EXPECT_EQ(bytes_of<RdbSnapshot>([](RdbSnapshot& s) { s.valuetype = 6; }), zeros_with(1104, 96, "\x06"));
}

TEST(RdbSnapshot, HoldsTheValueLengthAt102LowestByteFirst) {
    EXPECT_EQ(bytes_of<RdbSnapshot>([](RdbSnapshot& s) { s.valuelen = 0xff01; }), zeros_with(1104, 102, "\x01\xff"));
}

TEST(RdbSnapshot, HoldsTheValueAt104ToItsEnd) {
    const std::string value(999, 'v');
    EXPECT_EQ(bytes_of<RdbSnapshot>([&](RdbSnapshot& s) { std::memcpy(s.value, value.c_str(), sizeof s.value); }),
              zeros_with(1104, 104, value));
    EXPECT_EQ(sizeof(RdbSnapshot::value), 1000u);
}

TEST(RdbSnapshot, EveryByteBelongsToAMember) {
    EXPECT_TRUE(std::has_unique_object_representations_v<RdbSnapshot>);
}

TEST(RdbApi, EventsAndKindsHaveTheirNumbers) {
    EXPECT_EQ(RDB_EVENT_CONNECTED, 60001);
    EXPECT_EQ(RDB_EVENT_DISCONNECTED, 60003);
    EXPECT_EQ(RDB_VALUE_TYPE_TEXT, 6);
    EXPECT_EQ(RDB_TAG_CLASS_USABLE, 2);
    EXPECT_EQ(RDB_TAGINPORT_MODE, 16);
}

TEST(RdbApi, TheNineFunctionsHaveTheirTypes) {
    EXPECT_TRUE((std::is_same_v<decltype(rdb_create), int()>));
    EXPECT_TRUE((std::is_same_v<decltype(rdb_setmessagenotify), int(int, RdbMessageNotify, void*)>));
    EXPECT_TRUE((std::is_same_v<decltype(rdb_connectex), int(int, const char*, const char*, const char*, int)>));
    EXPECT_TRUE((std::is_same_v<decltype(rdb_callmsg), int(int, const char*, std::int32_t, RdbReply, void*)>));
    EXPECT_TRUE((std::is_same_v<decltype(rdb_tagget), int(int, RdbTag*)>));
    EXPECT_TRUE((std::is_same_v<decltype(rdb_taginport), int(int, int, RdbTag*, std::int32_t*)>));
    EXPECT_TRUE((std::is_same_v<decltype(rdb_objputsnapshot), int(int, const RdbSnapshot*, int)>));
    EXPECT_TRUE((std::is_same_v<decltype(rdb_disconnect), int(int)>));
    EXPECT_TRUE((std::is_same_v<decltype(rdb_destory), int(int)>));
}

}  // namespace
