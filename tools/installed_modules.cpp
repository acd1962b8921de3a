//  The modules that the service would load: those in the folder of the client library. This is the folder of this
//  program if the library is there, as in a build; otherwise it is the folder of the installation.
#include "inifile.h"
#include "module/finder.h"
#include "module/loader.h"

#include <unistd.h>

namespace {

constexpr char usual_folder[] = ADDRPUBD_DIR "/";

std::string libraryFolder() {
    const std::string beside = getExeDir();
    return access((beside + "librdbapix64.so").c_str(), F_OK) == 0 ? beside : usual_folder;
}

}  // namespace

rdbopen::Result<const rdbopen::Module*> rdbopen::findModule(const std::string& name) {
    return loadModule(libraryFolder(), name);
}
