//  The level text beside its model.
#include "fuzz_input.h"
#include "level_model.h"
#include "olk_log.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = std::string(reinterpret_cast<const char*>(data), size).c_str();
    const int level = olk::level_from_text(text.c_str());
    require(level == modelLevel(text), "the levels agree");
    char buffer[olk::level_name_size];
    const std::string name = olk::level_name(level, buffer);
    require(olk::level_from_text(name.c_str()) == level, "a level's name gives the level");
    return 0;
}
