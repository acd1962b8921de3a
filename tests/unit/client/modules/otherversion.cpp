//  Modules of another version or interface, or without a version. Their function pointers are null, so a call of them
//  would crash.
#include "module/module.h"

RDBAPI_MODULE(otherversion);
constinit const rdbopen::Module rdbapix64_otherversion = {rdbopen::moduleInterface, "0.0.1", {}, nullptr, nullptr};

RDBAPI_MODULE(otherinterface);
constinit const rdbopen::Module rdbapix64_otherinterface = {
    rdbopen::moduleInterface + 1, RDBAPI_VERSION, {}, nullptr, nullptr};

RDBAPI_MODULE(noversion);
constinit const rdbopen::Module rdbapix64_noversion = {rdbopen::moduleInterface, nullptr, {}, nullptr, nullptr};
