//  The back end dns://SERVER[:PORT],.../ZONE: records of this host in a zone of a DNS server, changed by signed updates
//  (RFC 2136, RFC 8945) over TCP, or over TLS (RFC 7858) with the scheme dns+tls. Checks try UDP first, except with
//  dns+tls. zone_url.h describes the options, records.h the records of the zone, pointers.h the PTR records in reverse
//  zones, and check.h the checks.
//
//  Each operation opens new sockets and closes them at the latest at its end, so an idle back end has none.
#ifndef RDBAPI_OPEN_DNS_BACKEND_H
#define RDBAPI_OPEN_DNS_BACKEND_H

#include "engine/backend.h"
#include "net/stream.h"
#include "net/url.h"

namespace rdbopen {

//  Makes the back end for a url whose options of TLS the caller has removed. The back end connects with stream. The
//  user is the name of a key, and the password (net/secret.h) is the key's secret in base64. Fails with errorBadUrl.
BackendResult makeDnsBackend(const Url& url, const Credentials& credentials, std::unique_ptr<Stream> stream);

//  Makes the back end for a url of the scheme dns, which connects over TCP. Fails with errorBadUrl.
BackendResult makePlainDnsBackend(const Url& url, const Credentials& credentials);

}  // namespace rdbopen

#endif
