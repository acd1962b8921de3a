//  The back end hosts:///PATH: a DNS server's view of this host, kept as lines of a hosts(5) file that a name server
//  serves. Several services may share the file, each with a host name of its own.
#ifndef RDBAPI_OPEN_HOSTS_BACKEND_H
#define RDBAPI_OPEN_HOSTS_BACKEND_H

#include "engine/backend.h"
#include "net/url.h"

#include <memory>

namespace rdbopen {

//  Returns errorNone, or errorBadUrl with the reason. Knows no users: access is the file system's business.
int makeHostsBackend(const Url& url, const Credentials& credentials, std::unique_ptr<Backend>& backend,
                     std::string& reason);

}  // namespace rdbopen

#endif
