//  Finds the module of a back end. The module's name comes from the table of backends.cpp, never from a url. findModule
//  has three implementations. The library, and each program that contains its code, link exactly one of them:
//
//      loaded_modules.cpp              librdbapix64.so, open_exit_test: loads modules from the folder of this code
//      linked_modules.cpp              other programs of the tests: the modules are linked into the program
//      tools/installed_modules.cpp     addrpubd-check: loads the files that the service would load
#ifndef RDBAPI_OPEN_MODULE_FINDER_H
#define RDBAPI_OPEN_MODULE_FINDER_H

#include "module/module.h"

namespace rdbopen {

//  Returns the descriptor of the back end name, which stays valid until the process ends. Fails with errorNotInstalled
//  or errorNotLoadable.
Result<const Module*> findModule(const std::string& name);

}  // namespace rdbopen

#endif
