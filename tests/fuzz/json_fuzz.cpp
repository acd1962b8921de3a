//  Checks the JSON writers. A separate reader and a JSON parser read the text. The standard library provides the
//  expected numbers, and a calendar the expected times. The text is written after other text, and with different
//  amounts of room in the buffer, because the writers use different code depending on the room.
#include "fuzz_input.h"
#include "json_oracle.h"
#include "json_reader.h"
#include "olk_json.h"
#include "time_model.h"

#include <ctime>
#include <memory>

namespace {

std::string text_of(const olk::string& s) {
    return s.data() == nullptr ? std::string() : std::string(s.data(), s.size());
}

olk::string pooled(const std::string& text) {
    return olk::string(text.data(), text.size());
}

//  Returns whether the header of the block after the string's block is unchanged. A header contains the address of the
//  heap, or zero if its block was never used.
bool next_header_intact(const olk::string& s) {
    const char* block = s.data() - 8;
    const olk::blk_heap* heap = olk::blk_heap::of(block);
    const size_t stride = heap->blksize + olk::blk_header_size;
    const size_t next = static_cast<size_t>(block - heap->base) / stride + 1;
    return next >= heap->blkcount ||
           olk::load_word<const olk::blk_heap*>(block + heap->blksize) == (next < heap->bump ? heap : nullptr);
}

//  Returns a text of 11 bytes in a buffer of at least `room` bytes.
olk::string with_room(size_t room) {
    olk::string out;
    if (room != 0)
        out.reserve(room);
    out.append("behind this");
    return out;
}

std::string written_behind(const olk::string& out) {
    require(text_of(out).compare(0, 11, "behind this") == 0, "the earlier text is unchanged");
    require(next_header_intact(out), "nothing is written after the block");
    return text_of(out).substr(11);
}

//  The text is in a block of exactly its size, so that a sanitizer detects reading beyond it.
void check_string(const std::string& value, size_t room) {
    const std::unique_ptr<char[]> bytes(new char[value.size()]);
    value.copy(bytes.get(), value.size());
    olk::string whole = with_room(room);
    olk::writeString(bytes.get(), value.size(), whole);
    olk::string single;
    single.push_back('"');
    for (char c : value)
        olk::outJsonEsc(c, single);
    single.push_back('"');
    const std::string text = written_behind(whole);
    require(text == text_of(single), "writing at once and byte by byte yield the same text");
    require(olk::isJsonPlain(bytes.get(), value.size()) == (text.size() == value.size() + 2),
            "a plain text grows only by its quotes");
    json_reader reader(text);
    require(reader.value() == value && reader.empty(), "the written value is read");
}

std::string written(const json_object& object, size_t room) {
    olk::vector_<olk::string> list;
    for (const std::string& element : object.list)
        list.push_back(pooled(element));
    olk::string out = with_room(room);
    uint32_t members = 0;
    out.push_back('{');
    olk::writeStringMember(&members, "first", pooled(object.first), out);
    olk::writeStringArrayMember(&members, "list", list, out);
    olk::writeStringMember(&members, "second", pooled(object.second), out);
    olk::writeSeparator(&members, out);
    out.append("\"number\":");
    olk::writeDecimal(object.number, out);
    out.push_back('}');
    require(members == 2u + !object.first.empty() + !object.second.empty(),
            "an empty value is not counted as a member");
    return written_behind(out);
}

void check_read_back(const std::string& text, const json_object& object) {
    json_reader reader(text);
    reader.take("{");
    if (!object.first.empty()) {
        reader.take("\"first\":");
        require(reader.value() == object.first, "the written first member is read");
        reader.take(",");
    }
    reader.take("\"list\":[");
    for (size_t i = 0; i < object.list.size(); ++i) {
        reader.take(i == 0 ? "" : ",");
        require(reader.value() == object.list[i], "the written element is read");
    }
    reader.take("],");
    if (!object.second.empty()) {
        reader.take("\"second\":");
        require(reader.value() == object.second, "the written second member is read");
        reader.take(",");
    }
    reader.take("\"number\":" + std::to_string(object.number) + "}");
    require(reader.empty(), "the text ends after the object");
}

//  Makes bytes acceptable to a JSON parser: bytes above 127 become two bytes of UTF-8, and control characters that are
//  not escaped become blanks.
std::string parsable(const std::string& bytes) {
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 128)
            text += {static_cast<char>(0xc0 | byte >> 6), static_cast<char>(0x80 | (byte & 0x3f))};
        else
            text.push_back(byte < 32 && (byte < 8 || byte > 13 || byte == 11) ? ' ' : c);
    }
    return text;
}

void check_object(json_object object, size_t room) {
    check_read_back(written(object, room), object);
    object.first = parsable(object.first);
    object.second = parsable(object.second);
    for (std::string& element : object.list)
        element = parsable(element);
    require(oracle_reads(written(object, room), object), "a JSON parser reads the written object");
}

template <class NUMBER>
void check_decimal(NUMBER number) {
    olk::string out;
    olk::writeDecimal(number, out);
    require(text_of(out) == std::to_string(number), "a number has the same digits as by the standard library");
}

void check_time(int64_t milliseconds, const zone& where) {
    static const zone* set = nullptr;
    if (set != &where) {
        setenv("TZ", where.name, 1);
        tzset();
        set = &where;
    }
    olk::string out;
    require(olk::writeIsoTime(milliseconds, out) == 1, "every time of 64 bits has a text");
    require(text_of(out) == model_time(milliseconds, where), "the times agree");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    check_decimal(input.number<int32_t>());
    check_decimal(input.number<uint32_t>());
    json_object object;
    object.number = input.number<int64_t>();
    check_decimal(object.number);
    check_time(object.number, zones[input.number<uint8_t>() % std::size(zones)]);
    const size_t room = input.number<uint16_t>() % 2048;
    object.first = input.bytes(input.number<uint8_t>());
    for (int elements = input.number<uint8_t>() % 4; elements > 0; --elements)
        object.list.push_back(input.bytes(input.number<uint8_t>()));
    object.second = input.bytes(input.number<uint8_t>());
    check_object(object, room);
    check_string(input.all(), room);
    return 0;
}
