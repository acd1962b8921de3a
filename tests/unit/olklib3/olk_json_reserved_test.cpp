//  Writes members and string values into a buffer with enough room. A key is then copied at once. A text of 16
//  characters or more is copied in steps of 16 unless it contains a slash, a backslash or a character whose code is at
//  most that of the double quote. The result must be the same as that of piecewise writing. If the room is too small,
//  the growth of the buffer must be the same, too.
#include "olk_json.h"

#include <gtest/gtest.h>

#include <string>

namespace {

const std::string address = "2001:db8:1234:5678:9abc:def0:1234:5678";

//  Returns the value written character by character.
std::string expected(const std::string& text) {
    olk::string out;
    out.push_back('"');
    for (const char c : text)
        olk::outJsonEsc(c, out);
    out.push_back('"');
    return std::string(out.data(), out.size());
}

std::string written(const std::string& text) {
    olk::string out;
    out.reserve(400);
    out.append("[");
    olk::writeString(text.data(), text.size(), out);
    return std::string(out.data() + 1, out.size() - 1);
}

TEST(JsonReserved, EveryByteAtEveryPlaceMatchesPiecewiseWriting) {
    for (size_t length = 1; length <= 40; ++length)
        for (size_t place = 0; place < length; ++place)
            for (int byte = 0; byte < 256; ++byte) {
                std::string text(length, 'a');
                text[place] = static_cast<char>(byte);
                ASSERT_EQ(written(text), expected(text)) << length << ' ' << place << ' ' << byte;
            }
}

TEST(JsonReserved, ATextOfOneRepeatedByteMatchesPiecewiseWriting) {
    for (size_t length = 16; length <= 40; ++length)
        for (int byte = 0; byte < 256; ++byte) {
            const std::string text(length, static_cast<char>(byte));
            ASSERT_EQ(written(text), expected(text)) << length << ' ' << byte;
        }
}

TEST(JsonReserved, AnAddressIsWrittenWhole) {
    EXPECT_EQ(written(address), '"' + address + '"');
}

//  Calls `write` and `pieces` after texts of each length that fits a buffer of 120 bytes, and compares the results. If
//  the room is too small, both must grow the buffer in the same way.
template <class WRITE, class PIECES>
void grows_as_for_pieces(WRITE write, PIECES pieces) {
    for (size_t before = 0; before <= 119; ++before) {
        olk::string whole;
        olk::string by_pieces;
        for (olk::string* out : {&whole, &by_pieces}) {
            out->reserve(100);
            ASSERT_EQ(out->capacity(), 120u);
            for (size_t i = 0; i < before; ++i)
                out->push_back('x');
        }
        write(whole);
        pieces(by_pieces);
        ASSERT_EQ(std::string(whole.data(), whole.size()), std::string(by_pieces.data(), by_pieces.size())) << before;
        ASSERT_EQ(whole.capacity(), by_pieces.capacity()) << before;
    }
}

void append_value(const std::string& text, olk::string& out) {
    out.push_back('"');
    out.append(text.data(), text.size());
    out.push_back('"');
}

void append_key(const char* key, olk::string& out) {
    out.push_back('"');
    out.append(key);
    out.append("\":");
}

TEST(JsonReserved, TheBufferGrowsAsInPiecewiseWritingOfAValue) {
    grows_as_for_pieces([](olk::string& out) { olk::writeString(address.data(), address.size(), out); },
                        [](olk::string& out) { append_value(address, out); });
}

TEST(JsonReserved, TheBufferGrowsAsInPiecewiseWritingOfTheFirstMember) {
    grows_as_for_pieces(
        [](olk::string& out) {
            uint32_t members = 0;
            olk::writeStringMember(&members, "ipv6", olk::string(address.data(), address.size()), out);
            EXPECT_EQ(members, 1u);
        },
        [](olk::string& out) {
            append_key("ipv6", out);
            append_value(address, out);
        });
}

TEST(JsonReserved, TheBufferGrowsAsInPiecewiseWritingOfTheNextMember) {
    grows_as_for_pieces(
        [](olk::string& out) {
            uint32_t members = 1;
            olk::writeStringMember(&members, "ipv6", olk::string(address.data(), address.size()), out);
            EXPECT_EQ(members, 2u);
        },
        [](olk::string& out) {
            out.push_back(',');
            append_key("ipv6", out);
            append_value(address, out);
        });
}

TEST(JsonReserved, TheBufferGrowsAsInPiecewiseWritingOfAnArray) {
    olk::vector_<olk::string> list;
    for (int i = 0; i < 3; ++i)
        list.push_back(olk::string(address.data(), address.size()));
    grows_as_for_pieces(
        [&](olk::string& out) {
            uint32_t members = 0;
            olk::writeStringArrayMember(&members, "ipv6s", list, out);
        },
        [&](olk::string& out) {
            append_key("ipv6s", out);
            out.push_back('[');
            for (int i = 0; i < 3; ++i) {
                if (i != 0)
                    out.push_back(',');
                append_value(address, out);
            }
            out.push_back(']');
        });
}

}  // namespace
