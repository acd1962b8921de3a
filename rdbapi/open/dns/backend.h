//  The back end dns://SERVER[:PORT],.../ZONE: records of this host in a zone of a DNS server, changed by signed updates
//  (RFC 2136, RFC 8945) over TCP, or over TLS (RFC 7858) with the scheme dns+tls. Checks try UDP first, except with
//  dns+tls. zone_url.h has the options, records.h the records, pointers.h those of reverse zones, check.h the checks.
//
//  Each operation opens new sockets and closes them at the latest at its end, so an idle back end has none.
#ifndef RDBAPI_OPEN_DNS_BACKEND_H
#define RDBAPI_OPEN_DNS_BACKEND_H

#include "engine/backend.h"
#include "net/stream.h"
#include "net/url.h"

namespace rdbopen {

//  Makes the back end for a url without the options of TLS. stream: how the server is reached. The user is the key's
//  name, the password its secret in base64. Fails with errorBadUrl.
BackendResult makeDnsBackend(const Url& url, const Credentials& credentials, std::unique_ptr<Stream> stream);

//  Makes the back end of dns. Fails with errorBadUrl.
BackendResult makePlainDnsBackend(const Url& url, const Credentials& credentials);

}  // namespace rdbopen

#endif
