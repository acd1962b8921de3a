//  Loads the module of a back end, FOLDER/librdbapix64-NAME.so, into the process. The module is never unloaded. Its
//  descriptor is rdbapix64_NAME, with "_" for each "-" of the name.
//
//  All signals are blocked on the calling thread during the load. Otherwise a signal handler could interrupt dlopen and
//  call exit, which would run destructors of objects that are only partly loaded. A worker's thread must not load a
//  module, because the service has only one malloc arena. If a signal interrupted the service's thread in malloc, exit
//  in the handler would wait for the lock of the dynamic loader. The worker would hold this lock and wait for the lock
//  of the arena. Therefore rdb_connectex loads the module on its caller's thread.
//
//  Threads: any.
#ifndef RDBAPI_OPEN_MODULE_LOADER_H
#define RDBAPI_OPEN_MODULE_LOADER_H

#include "module/module.h"

namespace rdbopen {

//  Returns the descriptor of the module. Fails with errorNotInstalled when the file does not exist, and with
//  errorNotLoadable when it cannot be loaded, has no descriptor, or has another version or interface number.
//  Requires: folder is an absolute path that ends with "/"; name consists of letters, digits and "-".
Result<const Module*> loadModule(const std::string& folder, const std::string& name);

//  Returns the folder of the file that is mapped at address, which is code of the client library: an absolute path that
//  ends with "/". Fails with errorNotLoadable. The kernel's list of mappings is used, because the dynamic loader knows
//  only the relative name ./librdbapix64.so, and the working directory may have changed.
Result<std::string> folderOfCode(const void* address);

}  // namespace rdbopen

#endif
