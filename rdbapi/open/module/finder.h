//  How the module of a back end is found. A program links exactly one of the definitions:
//
//      loaded_modules.cpp              librdbapix64.so: the files in the folder of the library itself
//      linked_modules.cpp              unit tests: the back ends are part of the program
//      tools/installed_modules.cpp     addrpubd-check: the files that the service would load
#ifndef RDBAPI_OPEN_MODULE_FINDER_H
#define RDBAPI_OPEN_MODULE_FINDER_H

#include "module/module.h"

namespace rdbopen {

//  Returns the descriptor of the back end name, which stays valid until the process ends. Fails with errorNotInstalled or
//  errorNotLoadable.
Result<const Module*> findModule(const std::string& name);

}  // namespace rdbopen

#endif
