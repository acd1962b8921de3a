//  Compares the parser of levels and the names of levels with models.
#include "fuzz_input.h"
#include "level_model.h"
#include "olk_log.h"

namespace {

std::string model_name(int level) {
    static const std::map<int, std::string> names = {{10, "err"}, {20, "wrn"}, {30, "inf"},
                                                     {31, "mor"}, {40, "dbg"}, {999, "all"}};
    const auto name = names.find(level);
    return name == names.end() ? std::to_string(level) : name->second;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = std::string(reinterpret_cast<const char*>(data), size).c_str();
    const int level = olk::level_from_text(text.c_str());
    require(level == modelLevel(text), "the levels agree");
    char buffer[olk::level_name_size];
    const std::string name = olk::level_name(level, buffer);
    require(name == model_name(level), "the names agree");
    require(olk::level_from_text(name.c_str()) == level, "the name of a level yields the level");
    return 0;
}
