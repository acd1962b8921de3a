//  Which url scheme is served by which back end of this build.
#ifndef RDBAPI_OPEN_BACKENDS_H
#define RDBAPI_OPEN_BACKENDS_H

#include "engine/backend.h"

#include <memory>

namespace rdbopen {

//  Makes the back end for url_text, unopened and without any exchange. Stores null in backend on failure, with the
//  reason, which holds no password. Returns errorNone, errorBadUrl or errorUnknownScheme.
int makeBackend(std::string_view url_text, const Credentials& credentials, std::unique_ptr<Backend>& backend,
                std::string& reason);

}  // namespace rdbopen

#endif
