//  All bytes of the records that are passed to the client library.
#include "service_platform.h"
#include "service_publish.h"

#include <cstring>

namespace {

using recording_rdb::every_call;
using recording_rdb::Function;
using recording_rdb::script_tag_class;

using TagRecord = PublishTest;

std::string tagBytes(const std::string& name, bool importing) {
    std::string bytes(256, '\0');
    bytes.replace(12, name.size(), name);
    if (importing) {
        bytes[4] = 6;
        bytes[189] = 2;
        bytes[191] = 1;
    }
    return bytes;
}

std::string snapshotBytes(const std::string& name, const std::string& value) {
    std::string bytes(1104, '\0');
    bytes.replace(0, name.size(), name);
    bytes[96] = 6;
    bytes[102] = static_cast<char>(value.size() % 256);
    bytes[103] = static_cast<char>(value.size() / 256);
    bytes.replace(104, value.size(), value);
    return bytes;
}

const std::string names[] = {"", "h", "host1", std::string(78, 'n'), std::string(79, 'n'), "dir\\name/\v\xFF"};

class SnapshotRecord : public PublishTest {
protected:
    //  Sets the length of the next lists.
    void setListLength(std::size_t length) {
        Lines texts;
        for (; length > 47; length -= 21)
            texts.emplace_back(20, 'a');
        texts.emplace_back(length, 'b');
        interfaces.set(Lines(texts.size(), "2001:db8::1"));
        platform::hooks().inet_ntop = [texts, i = std::size_t{0}](int, const void*, char* out, socklen_t) mutable {
            return std::strcpy(out, texts.at(i++ % texts.size()).c_str());
        };
    }
};

TEST_F(TagRecord, AQueryHasTheNameAndOtherwiseZerosInIts256Bytes) {
    connect(true, false);
    for (const std::string& name : names) {
        run.hostname = name;
        run.last_put_value.clear();
        cycle(clock + 10);
        EXPECT_EQ(callsOf(Function::tagget).back().record, tagBytes(name, false));
    }
}

TEST_F(TagRecord, AnImportHasNameClassTypeAndFlagInIts256Bytes) {
    for (const std::string& name : names) {
        run.hostname = name;
        RdbTag tag;
        memset(&tag, 0xAA, sizeof tag);
        run.importTag(tag);
        EXPECT_EQ(callsOf(Function::taginport).back().record, tagBytes(name, true));
        EXPECT_EQ(memcmp(&tag, tagBytes(name, true).data(), sizeof tag), 0);
    }
}

TEST_F(TagRecord, ANameBeyond79CharactersIsShortenedInQueryAndImport) {
    connect(true, false);
    script_tag_class(Function::tagget, every_call, 0);
    for (const std::size_t length : {80U, 81U, 500U}) {
        run.hostname = std::string(length, 'n');
        run.last_put_value.clear();
        cycle(clock + 10);
        EXPECT_EQ(callsOf(Function::tagget).back().record, tagBytes(std::string(79, 'n'), false));
        EXPECT_EQ(callsOf(Function::taginport).back().record, tagBytes(std::string(79, 'n'), true));
    }
}

TEST_F(TagRecord, ASecondImportHoldsTheSameBytesAsTheFirst) {
    connect(true, false);
    script_tag_class(Function::tagget, every_call, 9);
    script_tag_class(Function::taginport, every_call, 9);
    cycle(start);
    const auto imports = callsOf(Function::taginport);
    ASSERT_EQ(imports.size(), 2U);
    EXPECT_EQ(imports[0].record, tagBytes("host1", true));
    EXPECT_EQ(imports[1].record, tagBytes("host1", true));
}

TEST_F(SnapshotRecord, HasNameTypeLengthAndValueInIts1104Bytes) {
    connect(true, false);
    for (const std::string& name : names) {
        run.hostname = name;
        run.last_put_value.clear();
        cycle(clock + 10);
        EXPECT_EQ(callsOf(Function::objputsnapshot).back().record, snapshotBytes(name, "2001:db8::1"));
    }
}

TEST_F(SnapshotRecord, ANameBeyond79CharactersIsShortened) {
    connect(true, false);
    for (const std::size_t length : {80U, 81U, 500U}) {
        run.hostname = std::string(length, 'n');
        run.last_put_value.clear();
        cycle(clock + 10);
        EXPECT_EQ(callsOf(Function::objputsnapshot).back().record, snapshotBytes(std::string(79, 'n'), "2001:db8::1"));
    }
}

TEST_F(SnapshotRecord, TheTimeIsZeroInEveryPutAndIsSetAfterwards) {
    connect(true, false);
    cycle(start);
    cycle(start + 600);
    for (const auto& call : callsOf(Function::objputsnapshot))
        EXPECT_EQ(call.record.substr(80, 8), std::string(8, '\0'));
    EXPECT_EQ(run.snapshot.time, (start + 600) * 10);
}

TEST_F(SnapshotRecord, AShorterValueReplacesALongerOneCompletely) {
    connect(true, false);
    interfaces.set(Lines(25, "2001:db8:1111:1111:1111:1111:1111:1111"));
    cycle(start);
    interfaces.set(Lines{"1::1"});
    cycle(start + 10);
    EXPECT_EQ(callsOf(Function::objputsnapshot).back().record, snapshotBytes("host1", "1::1"));
}

TEST_F(SnapshotRecord, AListIsShortenedTo999Characters) {
    connect(true, false);
    for (const std::size_t length : {255U, 256U, 998U, 999U, 1000U, 1001U, 1500U}) {
        setListLength(length);
        cycle(clock + 10);
        ASSERT_EQ(run.address_list.size(), length);
        EXPECT_EQ(callsOf(Function::objputsnapshot).back().record,
                  snapshotBytes("host1", run.address_list.substr(0, 999)));
    }
}

TEST_F(SnapshotRecord, TheLogRecordOfASuccessHasTheWholeList) {
    connect(true, false);
    setListLength(1500);
    const Lines lines = cycle(start);
    ASSERT_EQ(run.address_list.size(), 1500U);
    EXPECT_EQ(lines.back(), "30 rdb_objputsnapshot host1 success,ipv6= " + run.address_list);
}

TEST_F(SnapshotRecord, ListsThatDifferOnlyAfterTheLimitAreDifferent) {
    connect(true, false);
    Lines addresses(30, "2001:db8:1111:1111:1111:1111:1111:1111");
    interfaces.set(addresses);
    cycle(start);
    addresses.back() = "2001:db8:1111:1111:1111:1111:1111:1112";
    interfaces.set(addresses);
    EXPECT_EQ(puts(start + 10), 1U);
}

TEST_F(SnapshotRecord, TheDnsServerAndTheLogGetTheCompleteName) {
    connect(true, true);
    run.hostname = std::string(200, 'n');
    const Lines lines = cycle(start);
    EXPECT_EQ(lines[2], "30 rdb_objputsnapshot " + run.hostname + " success,ipv6= 2001:db8::1");
    EXPECT_NE(callsOf(Function::callmsg).at(0).text.find("\"name\":\"" + run.hostname + "\""), std::string::npos);
}

}  // namespace
