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

//  Stores the descriptor of the module. On failure stores null and returns errorNotInstalled when the file does not exist,
//  or errorNotLoadable when it cannot be loaded, has no descriptor, or is of another version.
//  Requires: folder is an absolute path that ends with "/"; name consists of letters and digits.
Status loadModule(const std::string& folder, const std::string& name, const Module*& module);

//  Returns the absolute path, with "/" at its end, of the folder that holds the file which is mapped at address; empty
//  when it cannot be found. The kernel is asked, not the loader: the loader knows ./librdbapix64.so by this
//  relative name, and the working folder may be another one by now.
std::string folderOfCode(const void* address);

}  // namespace rdbopen

#endif
