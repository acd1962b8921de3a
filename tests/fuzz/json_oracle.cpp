#include "json_oracle.h"

#if __has_include(<nlohmann/json.hpp>)
#include <nlohmann/json.hpp>

bool oracle_reads(const std::string& text, const json_object& object) {
    nlohmann::json expected{{"list", object.list}, {"number", object.number}};
    if (!object.first.empty())
        expected["first"] = object.first;
    if (!object.second.empty())
        expected["second"] = object.second;
    return nlohmann::json::parse(text, nullptr, false) == expected;
}
#else
bool oracle_reads(const std::string&, const json_object&) {
    return true;
}
#endif
