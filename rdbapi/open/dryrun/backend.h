//  The back end log:, a dry run instead of either server: every request succeeds, and syslog has what it would write.
#ifndef RDBAPI_OPEN_DRYRUN_BACKEND_H
#define RDBAPI_OPEN_DRYRUN_BACKEND_H

#include "engine/backend.h"
#include "net/url.h"

namespace rdbopen {

//  Makes the back end. Fails with errorBadUrl.
BackendResult makeLogBackend(const Url& url, const Credentials& credentials);

}  // namespace rdbopen

#endif
