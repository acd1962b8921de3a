#include "backends.h"

#include "dryrun/module.h"
#include "module/finder.h"

#include <algorithm>

namespace rdbopen {

namespace {

//  back_ends.inc has a row {SCHEME, BACK END, PACKAGES} for each back end of the sources. PACKAGES are those for which the
//  back end is left out of this build, or empty.
constexpr struct {
    std::string_view scheme;
    std::string_view backEnd;
    std::string_view packages;
} schemes[] = {
#include "back_ends.inc"
};

std::string advice(std::string_view packages) {
    if (packages.empty())
        return "; install addrpubd again";
    return "; to include it, install " + std::string(packages) + " and build again";
}

}  // namespace

Status moduleForUrl(const Url& url, const Module*& module) {
    module = &rdbapix64_log;
    if (url.scheme == "log")
        return {};
    module = nullptr;
    const auto* const row =
        std::find_if(std::begin(schemes), std::end(schemes), [&](const auto& r) { return r.scheme == url.scheme; });
    if (row == std::end(schemes))
        return {errorUnknownScheme, "unknown url scheme"};  // not quoted: a password may have strayed into the url
    Status status = findModule(std::string(row->backEnd), module);
    if (status.code == errorNotInstalled)
        status.reason += advice(row->packages);
    if (module == nullptr ||
        std::find(module->schemes.begin(), module->schemes.end(), url.scheme) != module->schemes.end())
        return status;
    module = nullptr;
    return {errorNotLoadable, "the back end " + std::string(row->backEnd) + " does not serve the url's scheme"};
}

int makeBackend(std::string_view url_text, const Credentials& credentials, std::unique_ptr<Backend>& backend,
                std::string& reason) {
    backend.reset();
    Url url;
    if (!parseUrl(url_text, url, reason))
        return errorBadUrl;
    const Module* module = nullptr;
    Status status = moduleForUrl(url, module);
    if (module != nullptr)
        return module->make(url, credentials, backend, reason);
    reason = std::move(status.reason);
    return status.code;
}

}  // namespace rdbopen
