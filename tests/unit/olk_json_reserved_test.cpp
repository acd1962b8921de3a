//  String values written into a buffer that has room for them, where texts of 16 characters and more are copied in
//  steps.
#include "olk_json.h"

#include <gtest/gtest.h>

#include <string>

namespace {

//  The value as its pieces make it, one character after the other.
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

TEST(JsonReserved, EveryByteAtEveryPlaceIsWrittenAsItsPiecesAre) {
    for (size_t length = 1; length <= 40; ++length)
        for (size_t place = 0; place < length; ++place)
            for (int byte = 0; byte < 256; ++byte) {
                std::string text(length, 'a');
                text[place] = static_cast<char>(byte);
                ASSERT_EQ(written(text), expected(text)) << length << ' ' << place << ' ' << byte;
            }
}

TEST(JsonReserved, ATextOfOneByteAloneIsWrittenAsItsPiecesAre) {
    for (size_t length = 16; length <= 40; ++length)
        for (int byte = 0; byte < 256; ++byte) {
            const std::string text(length, static_cast<char>(byte));
            ASSERT_EQ(written(text), expected(text)) << length << ' ' << byte;
        }
}

TEST(JsonReserved, AnAddressIsWrittenWhole) {
    const std::string address = "2001:db8:1234:5678:9abc:def0:1234:5678";
    EXPECT_EQ(written(address), '"' + address + '"');
}

//  Where there is no room for the whole value, the buffer grows as for a quote, the text and a quote.
TEST(JsonReserved, TheBufferGrowsAsForTheValuesPieces) {
    const std::string address = "2001:db8:1234:5678:9abc:def0:1234:5678";
    for (size_t before = 0; before <= 119; ++before) {
        olk::string out;
        out.reserve(100);
        ASSERT_EQ(out.capacity(), 120u);
        for (size_t i = 0; i < before; ++i)
            out.push_back('x');
        olk::string pieces;
        pieces.reserve(100);
        pieces.append(out.c_str());
        olk::writeString(address.data(), address.size(), out);
        pieces.push_back('"');
        pieces.append(address.data(), address.size());
        pieces.push_back('"');
        ASSERT_EQ(std::string(out.data(), out.size()), std::string(pieces.data(), pieces.size())) << before;
        ASSERT_EQ(out.capacity(), pieces.capacity()) << before;
    }
}

}  // namespace
