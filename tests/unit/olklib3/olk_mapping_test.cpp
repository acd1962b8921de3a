#include "olk_mapping.h"

#include "mapping_spy.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));

TEST(RoundToPages, RoundsUpToAMultipleOfThePageSize) {
    EXPECT_EQ(olk::round_to_pages(0), 0u);
    EXPECT_EQ(olk::round_to_pages(1), page);
    EXPECT_EQ(olk::round_to_pages(page - 1), page);
    EXPECT_EQ(olk::round_to_pages(page), page);
    EXPECT_EQ(olk::round_to_pages(page + 1), 2 * page);
}

TEST(RoundToPages, ReturnsZeroWhenTheSumDoesNotFit) {
    EXPECT_EQ(olk::round_to_pages(SIZE_MAX - page + 1), SIZE_MAX - page + 1);
    EXPECT_EQ(olk::round_to_pages(SIZE_MAX - page + 2), 0u);
    EXPECT_EQ(olk::round_to_pages(SIZE_MAX), 0u);
}

TEST(RoundToPages, QueriesThePageSizeAtEveryRounding) {
    spy::watch watch;
    for (int i = 0; i < 3; ++i)
        olk::round_to_pages(1);
    EXPECT_EQ(watch.lengths(spy::kind::sysconf), std::vector<size_t>(3, _SC_PAGESIZE));
}

TEST(RoundToPages, FollowsAPageSizeThatChanges) {
    spy::watch watch;
    watch.page_size(8192);
    EXPECT_EQ(olk::round_to_pages(1), 8192u);
    watch.page_size(65536);
    EXPECT_EQ(olk::round_to_pages(8193), 65536u);
}

TEST(MapPages, RequestsPrivateReadableWritableMemoryWithoutAFile) {
    spy::watch watch;
    void* p = olk::map_pages(page);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(spy::last_mmap().hint, nullptr);
    EXPECT_EQ(spy::last_mmap().prot, PROT_READ | PROT_WRITE);
    EXPECT_EQ(spy::last_mmap().flags, MAP_PRIVATE | MAP_ANONYMOUS);
    EXPECT_EQ(spy::last_mmap().fd, -1);
    EXPECT_EQ(spy::last_mmap().offset, 0);
    EXPECT_TRUE(olk::unmap_pages(p, page));
}

TEST(MapPages, ReturnsZeroedMemory) {
    auto* p = static_cast<char*>(olk::map_pages(page));
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(std::all_of(p, p + page, [](char c) { return c == 0; }));
    olk::unmap_pages(p, page);
}

TEST(MapPages, TurnsTheSystemsFailureMarkerIntoNull) {
    spy::watch watch;
    watch.fail_mmap(1);
    EXPECT_EQ(olk::map_pages(page), nullptr);
}

TEST(MapPages, AMappingOf0BytesIsNull) {
    EXPECT_EQ(olk::map_pages(0), nullptr);
}

TEST(UnmapPages, ReportsWhetherTheSystemUnmappedIt) {
    void* p = olk::map_pages(page);
    spy::watch watch;
    watch.fail_munmap(1, 1);
    EXPECT_FALSE(olk::unmap_pages(p, page));
    EXPECT_TRUE(olk::unmap_pages(p, page));
}

TEST(Words, AreReadAsTheyWereStoredAtAnUnalignedAddress) {
    char bytes[17] = {};
    olk::store_word<uint64_t>(bytes + 1, 0x0123456789abcdefU);
    EXPECT_EQ(olk::load_word<uint64_t>(bytes + 1), 0x0123456789abcdefU);
    EXPECT_EQ(bytes[0], 0);
    EXPECT_EQ(bytes[9], 0);
}

TEST(Words, AtAcceptsPositiveAndNegativeOffsets) {
    char bytes[16];
    const char* constant = bytes;
    EXPECT_EQ(olk::at(bytes, 8), bytes + 8);
    EXPECT_EQ(olk::at(bytes + 8, -8), bytes);
    EXPECT_EQ(olk::at(static_cast<const void*>(constant), 8), constant + 8);
}

}  // namespace
