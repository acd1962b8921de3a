//  Which url scheme is served by which back end, and where its code is: log in the library itself, every other one in a
//  module (module/module.h) that is found when a url names its scheme.
#ifndef RDBAPI_OPEN_BACKENDS_H
#define RDBAPI_OPEN_BACKENDS_H

#include "module/module.h"

namespace rdbopen {

//  Returns the module that serves the url's scheme. Fails with errorUnknownScheme, errorNotInstalled or errorNotLoadable;
//  the reason holds nothing of the url but a known scheme.
Result<const Module*> moduleForUrl(const Url& url);

//  Makes the back end for urlText, unopened and without any exchange. Fails with errorBadUrl, errorNoResources or a code
//  of moduleForUrl; the reason holds no password.
BackendResult makeBackend(std::string_view urlText, const Credentials& credentials);

}  // namespace rdbopen

#endif
