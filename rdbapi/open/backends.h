//  Which url scheme is served by which back end, and where its code is: log in the library itself, every other one in a
//  module (module/module.h) that is found when a url names its scheme.
#ifndef RDBAPI_OPEN_BACKENDS_H
#define RDBAPI_OPEN_BACKENDS_H

#include "module/module.h"

#include <memory>

namespace rdbopen {

//  Stores the module that serves the url's scheme. On failure stores null and returns errorUnknownScheme,
//  errorNotInstalled or errorNotLoadable with the reason, which holds nothing of the url but a known scheme.
Status moduleForUrl(const Url& url, const Module*& module);

//  Makes the back end for url_text, unopened and without any exchange. Stores null in backend on failure, with the
//  reason, which holds no password. Returns errorNone, errorBadUrl, errorNoResources or a code of moduleForUrl.
int makeBackend(std::string_view url_text, const Credentials& credentials, std::unique_ptr<Backend>& backend,
                std::string& reason);

}  // namespace rdbopen

#endif
