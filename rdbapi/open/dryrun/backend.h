//  The back end log:, a dry run instead of either server: every request succeeds, and syslog has what it would write.
#ifndef RDBAPI_OPEN_DRYRUN_BACKEND_H
#define RDBAPI_OPEN_DRYRUN_BACKEND_H

#include "engine/backend.h"
#include "net/url.h"

#include <memory>

namespace rdbopen {

//  Returns errorNone, or errorBadUrl with the reason.
int makeLogBackend(const Url& url, const Credentials& credentials, std::unique_ptr<Backend>& backend,
                   std::string& reason);

}  // namespace rdbopen

#endif
