//  Loads modules from the folder of the file that contains this code, usually librdbapix64.so.
#include "module/finder.h"
#include "module/loader.h"

namespace rdbopen {

Result<const Module*> findModule(const std::string& name) {
    const Result<std::string> folder = folderOfCode(reinterpret_cast<const void*>(&findModule));
    if (!folder.ok())
        return failedTo("the back end " + name + " cannot be loaded", folder.status());
    return loadModule(*folder, name);
}

}  // namespace rdbopen
