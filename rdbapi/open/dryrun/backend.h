//  The back end of the url "log:", a dry run in place of an rdb server or a DNS server. Every request succeeds, except
//  the lookup of a tag that was not imported; syslog shows what would be written.
#ifndef RDBAPI_OPEN_DRYRUN_BACKEND_H
#define RDBAPI_OPEN_DRYRUN_BACKEND_H

#include "engine/backend.h"
#include "net/url.h"

namespace rdbopen {

//  Makes the back end. Fails with errorBadUrl.
BackendResult makeLogBackend(const Url& url, const Credentials& credentials);

}  // namespace rdbopen

#endif
