//  The back end dyndns2+https://HOST[:PORT][/PATH][?OPTIONS]. It sends addresses of this host to a provider of dynamic
//  names, with one HTTPS request of the protocol dyndns2. It sends the first address that passes the filter of the url
//  or, with the option addresses=all, all addresses that pass (provider_url.h). User and password are those of the
//  account at the provider.
#ifndef RDBAPI_OPEN_DYNDNS2_BACKEND_H
#define RDBAPI_OPEN_DYNDNS2_BACKEND_H

#include "engine/backend.h"
#include "net/url.h"

namespace rdbopen {

//  Makes the back end. Fails with errorBadUrl, or with errorNoResources if TLS or libcurl cannot be initialized.
BackendResult makeDyndns2Backend(const Url& url, const Credentials& credentials);

}  // namespace rdbopen

#endif
