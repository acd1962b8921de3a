//  The modules of librdbapix64.so lie beside it.
#include "module/finder.h"
#include "module/loader.h"

namespace rdbopen {

Status findModule(const std::string& name, const Module*& module) {
    const std::string folder = folderOfCode(reinterpret_cast<const void*>(&findModule));
    if (!folder.empty())
        return loadModule(folder, name, module);
    module = nullptr;
    return {errorNotLoadable,
            "the back end " + name + " cannot be loaded: /proc/self/maps does not say where the client library lies"};
}

}  // namespace rdbopen
