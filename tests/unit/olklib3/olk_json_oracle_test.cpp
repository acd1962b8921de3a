#include "olk_json.h"

#include "olk_json_support.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <random>
#include <string>
#include <vector>

namespace {

//  Returns a text of printable characters and the eight escaped ones, which every JSON parser accepts.
std::string some_text(std::mt19937& random) {
    static const std::string escapes = "\b\t\n\f\r\"/\\";
    std::string text(random() % 60, ' ');
    for (char& c : text)
        c = random() % 4 == 0 ? escapes[random() % escapes.size()] : static_cast<char>(32 + random() % 95);
    return text;
}

TEST(JsonOracle, AParserReadsBackWhatWasWrittenIn20000Objects) {
    std::mt19937 random(20250411);
    for (int i = 0; i < 20000; ++i) {
        const std::string first = some_text(random);
        const std::string second = some_text(random);
        std::vector<std::string> texts(random() % 4);
        olk::vector_<olk::string> list;
        for (std::string& text : texts) {
            text = some_text(random);
            list.push_back(olk::string(text.data(), text.size()));
        }
        const auto number = static_cast<int32_t>(random());

        const std::string text = written([&](olk::string& out) {
            uint32_t members = 0;
            out.push_back('{');
            olk::writeStringMember(&members, "first", olk::string(first.data(), first.size()), out);
            olk::writeStringArrayMember(&members, "list", list, out);
            olk::writeStringMember(&members, "second", olk::string(second.data(), second.size()), out);
            olk::writeSeparator(&members, out);
            out.append("\"number\":");
            olk::writeDecimal(number, out);
            out.push_back('}');
        });

        nlohmann::json expected{{"list", texts}, {"number", number}};
        if (!first.empty())
            expected["first"] = first;
        if (!second.empty())
            expected["second"] = second;
        ASSERT_EQ(nlohmann::json::parse(text, nullptr, false), expected) << text;
    }
}

}  // namespace
