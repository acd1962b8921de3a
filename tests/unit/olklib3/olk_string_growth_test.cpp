#include "olk_string_watch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using calls = std::vector<std::string>;

class StringGrowth : public testing::Test {
protected:
    StringGrowth() {
        watched_alloctor::take();
        mapped_alloctor::take();
    }

    //  Makes a text of the given length that fills its capacity. Its block is so large that growing keeps the block.
    static void fill_up(watched_string& s, uint32_t length) {
        s.reserve(60000);
        s.append(std::string(length, 'x').data(), length);
        set_stored_capacity(s, length + 1);
        watched_alloctor::take();
    }

    static std::string request_for(size_t length) {
        watched_alloctor::take();
        watched_string s;
        s.append(std::string(length, 'x').data(), length);
        return watched_alloctor::take()[0];
    }
};

TEST_F(StringGrowth, TheFirstByteTakesTheSmallestBlock) {
    watched_string s;
    s.push_back('a');
    EXPECT_EQ(watched_alloctor::take(), calls{"malloc 16"});
    EXPECT_EQ(s.capacity(), 8u);
    EXPECT_EQ(s.size(), 1u);
}

TEST_F(StringGrowth, SevenBytesUseOneBlockOf16) {
    watched_string s;
    for (int i = 0; i < 7; ++i)
        s.push_back('a');
    EXPECT_EQ(watched_alloctor::take(), calls{"malloc 16"});
    EXPECT_EQ(s.capacity(), 8u);
}

TEST_F(StringGrowth, TheEighthByteMovesTheTextToABlockOf32) {
    watched_string s;
    for (int i = 0; i < 7; ++i)
        s.push_back(static_cast<char>('1' + i));
    watched_alloctor::take();
    s.push_back('8');
    EXPECT_EQ(watched_alloctor::take(), (calls{"malloc 32", "free 16"}));
    EXPECT_EQ(s.capacity(), 24u);
    EXPECT_EQ(text_of(s), "12345678");
}

TEST_F(StringGrowth, SingleBytesGrowTheStringThroughTheExpectedBlocks) {
    watched_string s;
    std::vector<uint32_t> capacities;
    while (s.size() < 40000) {
        s.push_back('x');
        if (capacities.empty() || capacities.back() != s.capacity())
            capacities.push_back(s.capacity());
    }
    EXPECT_EQ(capacities, (std::vector<uint32_t>{8, 24, 56, 120, 248, 504, 1016, 2040, 5112, 12280, 24568, 49144}));
}

TEST_F(StringGrowth, TheRequestIsTwiceTheLengthPlusNineRoundedUpTo8) {
    EXPECT_EQ(request_for(1), "malloc 16");
    EXPECT_EQ(request_for(3), "malloc 16");
    EXPECT_EQ(request_for(4), "malloc 24");
    EXPECT_EQ(request_for(7), "malloc 24");
    EXPECT_EQ(request_for(8), "malloc 32");
    EXPECT_EQ(request_for(1000), "malloc 2016");
}

TEST_F(StringGrowth, ALengthOf15999RequestsTwiceAsMuch) {
    EXPECT_EQ(request_for(15999), "malloc 32008");
}

TEST_F(StringGrowth, ALengthOf16000RequestsHalfAsMuchAgain) {
    EXPECT_EQ(request_for(16000), "malloc 24016");
}

TEST_F(StringGrowth, HalfOfAnOddLengthIsRoundedDown) {
    EXPECT_EQ(request_for(16005), "malloc 24016");
    EXPECT_EQ(request_for(16007), "malloc 24024");
}

TEST_F(StringGrowth, TheCapacityOfANewBlockIsItsUsableSizeMinus8) {
    for (uint32_t length : {1u, 8u, 100u, 5000u, 16000u, 70000u, 900000u}) {
        watched_string s;
        s.append(std::string(length, 'x').data(), length);
        EXPECT_EQ(s.capacity(), watched_alloctor::usable_size(s.data() - 8) - 8);
    }
}

TEST_F(StringGrowth, ABigBlocksUsableSizeIsItsMappingMinus16) {
    watched_string s;
    s.reserve(5000000);
    EXPECT_EQ(watched_alloctor::take(), calls{"malloc 5000016"});
    EXPECT_EQ(s.capacity(), olk::round_to_pages(5000016 + 16) - 16 - 8);
}

TEST_F(StringGrowth, DoesNotGrowWhileTheLengthStaysBelowTheCapacity) {
    watched_string s;
    s.reserve(400);
    watched_alloctor::take();
    s.append(std::string(503, 'x').data(), 503);
    EXPECT_EQ(watched_alloctor::take(), calls{});
    s.push_back('x');
    EXPECT_EQ(watched_alloctor::take(), (calls{"malloc 1024", "free 512"}));
}

TEST_F(StringGrowth, TheWholeOldBlockIsCopied) {
    watched_string s;
    s.reserve(400);
    std::memset(s.data(), 'x', s.capacity());
    set_stored_size(s, 503);
    s.push_back('y');
    ASSERT_EQ(s.capacity(), 1016u);
    EXPECT_EQ(std::string(s.data(), 503), std::string(503, 'x'));
    EXPECT_EQ(s.data()[503], 'y');

    s.release();
    s.reserve(400);
    std::memset(s.data(), 'x', s.capacity());
    s.append("ab");
    s.reserve(600);
    EXPECT_EQ(s.size(), 2u);
    EXPECT_EQ(std::string(s.data(), 504), "ab" + std::string(502, 'x')) << "the bytes after the text are copied too";
}

TEST_F(StringGrowth, TheOldBlockIsFreedAfterTheNewOneIsTaken) {
    watched_string s("1234567890");
    watched_alloctor::take();
    s.append(std::string(100, 'x').data(), 100);
    EXPECT_EQ(watched_alloctor::take(), (calls{"malloc 232", "free 32"}));
}

TEST_F(StringGrowth, ABlockWithRoomForTheRequestIsKept) {
    watched_string s;
    s.reserve(400);
    s.append("123456789");
    set_stored_capacity(s, 10);
    const char* before = s.data();
    watched_alloctor::take();
    s.push_back('a');
    EXPECT_EQ(watched_alloctor::take(), calls{});
    EXPECT_EQ(s.data(), before);
    EXPECT_EQ(text_of(s), "123456789a");
}

TEST_F(StringGrowth, AKeptBlockGetsTheRequestedCapacityPlusOne) {
    watched_string s;
    s.reserve(400);
    s.append("123456789");
    set_stored_capacity(s, 10);
    s.push_back('a');
    EXPECT_EQ(s.capacity(), 21u) << "twice the 10 bytes, plus one";
}

TEST_F(StringGrowth, ABlockIsKeptUpToItsExactUsableSize) {
    watched_string s;
    s.reserve(400);
    set_stored_capacity(s, 252);
    set_stored_size(s, 250);
    watched_alloctor::take();
    s.append("ab");  // 252 bytes: capacity 504, request 520
    EXPECT_EQ(watched_alloctor::take(), (calls{"malloc 520", "free 512"}));

    watched_string kept;
    kept.reserve(400);
    set_stored_capacity(kept, 251);
    set_stored_size(kept, 250);
    watched_alloctor::take();
    kept.push_back('a');  // 251 bytes: capacity 502, request 512
    EXPECT_EQ(watched_alloctor::take(), calls{});
    EXPECT_EQ(kept.capacity(), 503u);
}

TEST_F(StringGrowth, ABigBlockIsKeptToo) {
    watched_string s;
    s.reserve(5000000);
    s.append("123456789");
    set_stored_capacity(s, 10);
    const char* before = s.data();
    watched_alloctor::take();
    s.push_back('a');
    EXPECT_EQ(watched_alloctor::take(), calls{});
    EXPECT_EQ(s.data(), before);
    EXPECT_EQ(s.capacity(), 21u);
}

TEST_F(StringGrowth, WhenTheNeedIs15999BytesTheCapacityDoubles) {
    watched_string s;
    fill_up(s, 15998);
    s.push_back('x');
    EXPECT_EQ(s.capacity(), 31998u + 1);
}

TEST_F(StringGrowth, WhenTheNeedIs16000BytesTheCapacityGrowsByHalf) {
    watched_string s;
    fill_up(s, 15999);
    s.push_back('x');
    EXPECT_EQ(s.capacity(), 24000u + 1);
}

TEST_F(StringGrowth, AppendGrowsOnceForTheWholePiece) {
    watched_string s;
    fill_up(s, 1000);
    s.append("0123456789");
    EXPECT_EQ(s.capacity(), 2020u + 1);
}

TEST_F(StringGrowth, ReserveOf400Requests416AndGets504) {
    watched_string s;
    s.reserve(400);
    EXPECT_EQ(watched_alloctor::take(), calls{"malloc 416"});
    EXPECT_EQ(watched_alloctor::usable_size(s.data() - 8), 512u);
    EXPECT_EQ(s.capacity(), 504u);
    EXPECT_EQ(s.size(), 0u);
}

TEST_F(StringGrowth, ReserveOf0TakesTheSmallestBlock) {
    watched_string s;
    s.reserve(0);
    EXPECT_EQ(watched_alloctor::take(), calls{"malloc 16"});
    EXPECT_EQ(s.capacity(), 8u);
}

TEST_F(StringGrowth, ReserveBelowTheCapacityChangesNothing) {
    watched_string s;
    s.reserve(400);
    watched_alloctor::take();
    s.reserve(503);
    EXPECT_EQ(watched_alloctor::take(), calls{});
    s.reserve(504);
    EXPECT_EQ(watched_alloctor::take(), (calls{"malloc 520", "free 512"}));
    EXPECT_EQ(s.capacity(), 632u);
}

TEST_F(StringGrowth, ReserveKeepsTheText) {
    watched_string s("abc");
    s.reserve(100000);
    EXPECT_EQ(text_of(s), "abc");
    EXPECT_EQ(s.capacity(), 131072u - 8);
}

TEST_F(StringGrowth, TheMaximumCanBeReserved) {
    mapped_string s;
    s.reserve(4294967263);
    EXPECT_EQ(mapped_alloctor::take(), std::vector<size_t>{4294967272});
    EXPECT_EQ(s.capacity(), 4294967264u);
}

TEST_F(StringGrowth, ABufferOfMaximumCapacityTakesTheLongestTextAtOnce) {
    mapped_string s;
    s.reserve(4294967263);
    EXPECT_NE(s.spare(4294967263), nullptr);
    EXPECT_EQ(s.spare(4294967264), nullptr);
}

TEST_F(StringGrowth, ATextMayFillTheLargestBlock) {
    mapped_string s;
    s.reserve(4294967263);
    ASSERT_NE(s.data(), nullptr);
    set_stored_size(s, 4294967262);
    s.push_back('z');
    ASSERT_EQ(s.size(), 4294967263u);
    EXPECT_EQ(s.data()[4294967262], 'z');
    EXPECT_EQ(s.c_str()[4294967263], '\0');
    mapped_alloctor::take();
    s.push_back('z');
    EXPECT_EQ(s.size(), 4294967263u) << "the next byte would exceed the maximum";
    EXPECT_EQ(mapped_alloctor::take(), std::vector<size_t>{});
}

TEST_F(StringGrowth, GrowsUpToTheMaximum) {
    mapped_string s;
    s.reserve(100);
    set_stored_size(s, 2863311508);
    mapped_alloctor::take();
    s.push_back('z');
    EXPECT_EQ(mapped_alloctor::take(), std::vector<size_t>{4294967272}) << "2863311509 plus half of it is the maximum";
    EXPECT_EQ(s.size(), 2863311509u);
    EXPECT_EQ(s.data()[2863311508], 'z');
}

TEST_F(StringGrowth, GrowingAboveTheMaximumFails) {
    mapped_string s;
    s.reserve(100);
    set_stored_size(s, 2863311509);
    const char* before = s.data();
    const uint32_t capacity = s.capacity();
    mapped_alloctor::take();
    s.push_back('z');
    s.append("z", 1);
    s.append("z");
    EXPECT_EQ(mapped_alloctor::take(), std::vector<size_t>{});
    EXPECT_EQ(s.size(), 2863311509u);
    EXPECT_EQ(s.data(), before);
    EXPECT_EQ(s.capacity(), capacity);
}

}  // namespace
