//  Start and exit of a program with global objects in several source files, in four link orders.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <sys/wait.h>

namespace {

using lines = std::vector<std::string>;

bool starts_with(const std::string& line, const std::string& word) {
    return line.compare(0, word.size(), word) == 0;
}

class AllocatorExit : public testing::TestWithParam<const char*> {
protected:
    lines life;
    int status = -1;

    void SetUp() override {
        FILE* program = popen((std::string(EXIT_ORDER_COMMAND) + GetParam()).c_str(), "r");
        ASSERT_NE(program, nullptr);
        char line[300];
        while (std::fgets(line, sizeof line, program) != nullptr)
            life.emplace_back(line, std::string(line).find('\n'));
        status = pclose(program);
        ASSERT_FALSE(life.empty());
    }

    size_t place_of(const std::string& line) const {
        return static_cast<size_t>(std::find(life.begin(), life.end(), line) - life.begin());
    }
    size_t first_with(const std::string& word) const {
        return static_cast<size_t>(
            std::find_if(life.begin(), life.end(), [&](const auto& l) { return starts_with(l, word); }) - life.begin());
    }
    size_t last_with(const std::string& word) const {
        const auto found =
            std::find_if(life.rbegin(), life.rend(), [&](const auto& l) { return starts_with(l, word); });
        return static_cast<size_t>(life.rend() - found) - 1;
    }
    //  Returns the lengths of the mappings that were not unmapped.
    std::vector<unsigned long long> left_mapped() const {
        std::map<std::string, unsigned long long> mapped;
        for (const std::string& line : life) {
            std::istringstream fields(line);
            std::string word, address;
            unsigned long long length = 0;
            fields >> word >> address >> length;
            if (word == "mmap")
                mapped[address] = length;
            else if (word == "munmap")
                mapped.erase(address);
        }
        std::vector<unsigned long long> lengths;
        for (const auto& [address, length] : mapped)
            lengths.push_back(length);
        return lengths;
    }
};

TEST_P(AllocatorExit, TheProgramExitsNormally) {
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_P(AllocatorExit, TheCLibraryIsTunedFirstWithThreeCallsInOrder) {
    ASSERT_GE(life.size(), 3u);
    EXPECT_EQ(life[0], "mallopt -8 1");
    EXPECT_EQ(life[1], "mallopt -3 1048576");
    EXPECT_EQ(life[2], "mallopt -1 1048576");
    EXPECT_EQ(last_with("mallopt"), 2u);
}

TEST_P(AllocatorExit, TheAllocatorIsBuiltSecondWithFourMappings) {
    ASSERT_GE(life.size(), 7u);
    const char* const lengths[] = {" 524288", " 49152", " 40960", " 36864"};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_TRUE(starts_with(life[3 + i], "mmap ")) << life[3 + i];
        EXPECT_NE(life[3 + i].find(lengths[i]), std::string::npos) << life[3 + i];
    }
}

TEST_P(AllocatorExit, EveryOtherGlobalObjectIsBuiltAfterTheTable) {
    EXPECT_GT(first_with("built"), 6u);
    EXPECT_EQ(std::count_if(life.begin(), life.end(), [](const auto& l) { return starts_with(l, "built"); }), 6);
    EXPECT_EQ(place_of("the table is not there yet"), life.size());
}

TEST_P(AllocatorExit, EveryOtherGlobalObjectIsDestroyedBeforeTheTable) {
    EXPECT_EQ(std::count_if(life.begin(), life.end(), [](const auto& l) { return starts_with(l, "gone"); }), 6);
    EXPECT_EQ(place_of("the table is gone already"), life.size());
    EXPECT_EQ(place_of("contents are damaged"), life.size());
}

TEST_P(AllocatorExit, TheAllocatorIsDestroyedAfterAllOtherObjects) {
    const size_t last_gone = last_with("gone");
    EXPECT_LT(place_of("exit handler"), last_gone);
    ASSERT_TRUE(starts_with(life[3], "mmap"));
    EXPECT_EQ("munmap" + life[3].substr(4), life.back()) << "the object heap's page is unmapped last";
    const auto first_heap = life[4].substr(4);
    EXPECT_GT(place_of("munmap" + first_heap), last_gone);
}

TEST_P(AllocatorExit, OnlyABigBlockThatWasNotFreedStaysMapped) {
    EXPECT_EQ(left_mapped(), std::vector<unsigned long long>{5001216});
}

INSTANTIATE_TEST_SUITE_P(Linked, AllocatorExit,
                         testing::Values("one_two_library", "two_one_library", "library_one_two", "library_two_one"),
                         [](const auto& order) { return std::string(order.param); });

}  // namespace
