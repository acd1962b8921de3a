//  The back end hosts:///PATH[?only=...&skip=...]: stores this host's addresses as lines of a hosts(5) file, which a
//  name server serves. Several services may share the file, each with a different host name.
#ifndef RDBAPI_OPEN_HOSTS_BACKEND_H
#define RDBAPI_OPEN_HOSTS_BACKEND_H

#include "engine/backend.h"
#include "net/url.h"
#include "request/address_filter.h"

namespace rdbopen {

//  Parses the options of a url (request/address_filter.h). Fails with malformedUrl.
Result<AddressFilter> parseHostsOptions(const Url& url);

//  Makes the back end. Fails with errorBadUrl. Ignores user and password: the file system controls access.
BackendResult makeHostsBackend(const Url& url, const Credentials& credentials);

}  // namespace rdbopen

#endif
