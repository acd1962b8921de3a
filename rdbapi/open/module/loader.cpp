#include "module/loader.h"

#include "engine/blocked_signals.h"
#include "files/descriptor.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

namespace rdbopen {

namespace {

Result<const Module*> descriptorIn(const std::string& path, const std::string& symbol) {
    const BlockedSignals blocked;
    void* file = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (file == nullptr) {
        const char* problem = dlerror();
        return Status{errorNotLoadable, "cannot be loaded: " + std::string(problem == nullptr ? path : problem)};
    }
    const auto* const module = static_cast<const Module*>(dlsym(file, symbol.c_str()));
    if (module == nullptr)
        return Status{errorNotLoadable, "cannot be used: " + path + " is not a module of this back end"};
    return module;
}

//  The members `interface` and `version` have the same position in every version of Module, so they can be read before
//  the rest.
bool isOfThisVersion(const Module& module) {
    return module.interface == moduleInterface && module.version != nullptr &&
           std::string_view(module.version) == RDBAPI_VERSION;
}

//  Returns whether the line of /proc/PID/maps, "START-END MODE ...", describes the mapping that contains address.
bool holds(std::string_view line, std::uintptr_t address) {
    std::uintptr_t start = 0;
    std::uintptr_t end = 0;
    const char* last = line.data() + line.size();
    const char* dash = std::from_chars(line.data(), last, start, 16).ptr;
    return dash != last && std::from_chars(dash + 1, last, end, 16).ec == std::errc() && start <= address &&
           address < end;
}

}  // namespace

Result<const Module*> loadModule(const std::string& folder, const std::string& name) {
    const std::string path = folder + "librdbapix64-" + name + ".so";
    const std::string subject = "the back end " + name + " ";
    if (access(path.c_str(), F_OK) != 0 && (errno == ENOENT || errno == ENOTDIR))
        return Status{errorNotInstalled, subject + "is not installed: " + path + " does not exist"};
    std::string symbol = "rdbapix64_" + name;
    std::replace(symbol.begin(), symbol.end(), '-', '_');
    Result<const Module*> module = descriptorIn(path, symbol);
    if (!module.ok())
        return Status{errorNotLoadable, subject + module.status().reason};
    if (!isOfThisVersion(**module))
        return Status{errorNotLoadable, subject + "cannot be used: " + path +
                                            " is not of version " RDBAPI_VERSION ", which the client library has"};
    return module;
}

Result<std::string> folderOfCode(const void* address) {
    const Descriptor file(open("/proc/self/maps", O_RDONLY | O_CLOEXEC));
    const Result<std::string> maps = readToEnd(file.get(), SIZE_MAX);
    const std::string_view text = maps.ok() ? std::string_view(*maps) : std::string_view();
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        const std::string_view line = text.substr(start, end - start);
        const std::size_t first = line.find('/');
        if (first != std::string_view::npos && holds(line, reinterpret_cast<std::uintptr_t>(address)))
            return std::string(line.substr(first, line.rfind('/') + 1 - first));
        start = end + 1;
    }
    return Status{errorNotLoadable, "/proc/self/maps does not contain the path of the client library"};
}

}  // namespace rdbopen
