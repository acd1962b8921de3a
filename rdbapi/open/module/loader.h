//  Loads the module of a back end, FOLDER/librdbapix64-NAME.so, into the process. It is never unloaded.
//
//  All signals are blocked on the calling thread meanwhile. A handler that called exit in the middle of dlopen would run
//  the destructors of half-loaded objects. On a worker's thread it would be worse: the handler interrupts the service's
//  thread, which may hold the lock of malloc, and exit waits for the loader's lock, whose holder waits for malloc's. So
//  rdb_connectex loads the module on the thread of its caller.
//
//  Threads: any.
#ifndef RDBAPI_OPEN_MODULE_LOADER_H
#define RDBAPI_OPEN_MODULE_LOADER_H

#include "module/module.h"

namespace rdbopen {

//  Returns the descriptor of the module. Fails with errorNotInstalled when the file does not exist, and with
//  errorNotLoadable when it cannot be loaded, has no descriptor, or is of another version.
//  Requires: folder is an absolute path that ends with "/"; name consists of letters and digits.
Result<const Module*> loadModule(const std::string& folder, const std::string& name);

//  Returns the absolute path, with "/" at its end, of the folder that holds the file which is mapped at address, code of
//  the client library. Fails with errorNotLoadable. The kernel is asked, not the loader: the loader knows
//  ./librdbapix64.so by this relative name, and the working folder may be another one by now.
Result<std::string> folderOfCode(const void* address);

}  // namespace rdbopen

#endif
