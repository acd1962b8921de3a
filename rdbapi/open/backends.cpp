#include "backends.h"

#include "dryrun/module.h"
#include "module/finder.h"

#include <algorithm>

namespace rdbopen {

namespace {

//  back_ends.inc has a row {SCHEME, BACK END, PACKAGES} for each scheme of the source tree except `log`. PACKAGES is
//  empty if the back end is part of this build; otherwise it lists the missing packages because of which the build has
//  left it out.
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

Result<const Module*> moduleForUrl(const Url& url) {
    if (url.scheme == "log")
        return &rdbapix64_log;
    const auto* const row =
        std::find_if(std::begin(schemes), std::end(schemes), [&](const auto& r) { return r.scheme == url.scheme; });
    if (row == std::end(schemes))
        return Status{errorUnknownScheme, "unknown url scheme"};  // without the url: it may have a misplaced password
    Result<const Module*> module = findModule(std::string(row->backEnd));
    if (module.status().code == errorNotInstalled)
        return Status{errorNotInstalled, module.status().reason + advice(row->packages)};
    if (!module.ok())
        return module;
    const auto served = (*module)->schemes;
    if (std::find(served.begin(), served.end(), url.scheme) == served.end())
        return Status{errorNotLoadable,
                      "the back end " + std::string(row->backEnd) + " does not serve the url's scheme"};
    return module;
}

BackendResult makeBackend(std::string_view urlText, const Credentials& credentials) {
    const Result<Url> url = parseUrl(urlText);
    if (!url.ok())
        return url.status();
    const Result<const Module*> module = moduleForUrl(*url);
    if (!module.ok())
        return module.status();
    return (*module)->make(*url, credentials);
}

}  // namespace rdbopen
