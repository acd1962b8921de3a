//  Finds the back ends that are linked into the program. linked_modules.inc has a row LINKED(SYMBOL, "NAME") for each
//  such back end.
#include "module/finder.h"

#define LINKED(SYMBOL, NAME) RDBAPI_MODULE(SYMBOL);
#include "linked_modules.inc"
#undef LINKED

namespace rdbopen {

namespace {

//  The last row exists because an array cannot be empty.
constexpr struct {
    std::string_view name;
    const Module* module;
} linked[] = {
#define LINKED(SYMBOL, NAME) {NAME, &rdbapix64_##SYMBOL},
#include "linked_modules.inc"
#undef LINKED
    {"", nullptr},
};

}  // namespace

Result<const Module*> findModule(const std::string& name) {
    for (const auto& row : linked)
        if (row.name == name)
            return row.module;
    return Status{errorNotInstalled, "the back end " + name + " is not installed: it is not linked into this program"};
}

}  // namespace rdbopen
