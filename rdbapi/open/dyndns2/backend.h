//  The back end dyndns2+https://HOST[:PORT][/PATH][?OPTIONS]: sends the first address of this host, or all of them
//  (provider_url.h), to a provider of dynamic names, with one HTTPS request of the protocol dyndns2. User and password
//  are those of the account at the provider.
#ifndef RDBAPI_OPEN_DYNDNS2_BACKEND_H
#define RDBAPI_OPEN_DYNDNS2_BACKEND_H

#include "engine/backend.h"
#include "net/url.h"

namespace rdbopen {

//  Makes the back end. Fails with errorBadUrl, or with errorNoResources if TLS or libcurl cannot be initialized.
BackendResult makeDyndns2Backend(const Url& url, const Credentials& credentials);

}  // namespace rdbopen

#endif
