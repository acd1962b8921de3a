//  The back end hosts:///PATH: stores this host's addresses as lines of a hosts(5) file, which a name server serves.
//  Several services may share the file, each with a different host name.
#ifndef RDBAPI_OPEN_HOSTS_BACKEND_H
#define RDBAPI_OPEN_HOSTS_BACKEND_H

#include "engine/backend.h"
#include "net/url.h"

#include <memory>

namespace rdbopen {

//  Returns errorNone, or errorBadUrl with the reason. Ignores user and password: the file system controls access.
int makeHostsBackend(const Url& url, const Credentials& credentials, std::unique_ptr<Backend>& backend,
                     std::string& reason);

}  // namespace rdbopen

#endif
