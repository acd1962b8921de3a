//  Maps a url scheme to its back end. The scheme `log` is implemented in the library itself; each other scheme has a
//  module (module/module.h), which is loaded when a url has this scheme. The table of schemes and modules is fixed in
//  the build. Several schemes may have the same module. No file is loaded for a scheme that is not in the table.
#ifndef RDBAPI_OPEN_BACKENDS_H
#define RDBAPI_OPEN_BACKENDS_H

#include "module/module.h"

namespace rdbopen {

//  Returns the module that serves the url's scheme. Fails with errorUnknownScheme, errorNotInstalled or
//  errorNotLoadable; the reason contains no part of the url except a known scheme.
Result<const Module*> moduleForUrl(const Url& url);

//  Creates the back end for urlText. Neither opens it nor contacts the server. Fails with errorBadUrl, errorNoResources
//  or a code of moduleForUrl; the reason contains no password.
BackendResult makeBackend(std::string_view urlText, const Credentials& credentials);

}  // namespace rdbopen

#endif
