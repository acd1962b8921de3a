//  Compares the ini reader with an independent reader of the same grammar, on generated files.
#include "inifile.h"

#include "ini_model.h"
#include "service_support.h"

#include <iterator>
#include <random>

#include <gtest/gtest.h>

namespace {

TEST(IniModel, AgreesWithTheReaderOn120000GeneratedFiles) {
    static constexpr char alphabet[] = "==;;##[[]]\n\n\n\r\r  \t\tabk'\"\v\0\xEF\xBB\xBF\xFF";
    std::mt19937 random(20250411);
    std::uniform_int_distribution<std::size_t> length(0, 48), pick(0, std::size(alphabet) - 2);
    std::uniform_int_distribution<int> mark(0, 7);
    const MemoryFile file;
    for (int i = 0; i < 120000; ++i) {
        std::string bytes = mark(random) == 0 ? "\xEF\xBB\xBF" : "";
        for (std::size_t left = length(random); left > 0; --left)
            bytes += alphabet[pick(random)];
        file.write(bytes);
        std::vector<IniEvent> events;
        ASSERT_TRUE(read_ini_file(file.path(), [&](const auto& section, const auto& key, const auto& value) {
            events.emplace_back(section, key, value);
            return false;
        }));
        ASSERT_EQ(events, modelIniEvents(bytes)) << testing::PrintToString(bytes);
    }
}

}  // namespace
