//  The back end dns://SERVER[:PORT]/ZONE: records of this host in a zone of a DNS server, changed by signed updates
//  (RFC 2136, RFC 8945) over TCP. zone_url.h has the options, records.h the records.
//
//  Each operation has a separate connection, so an idle back end has no open connection.
#ifndef RDBAPI_OPEN_DNS_BACKEND_H
#define RDBAPI_OPEN_DNS_BACKEND_H

#include "engine/backend.h"
#include "net/url.h"

#include <memory>

namespace rdbopen {

//  Returns errorNone, or errorBadUrl with the reason. The user is the key's name, the password its secret in base64.
int makeDnsBackend(const Url& url, const Credentials& credentials, std::unique_ptr<Backend>& backend,
                   std::string& reason);

}  // namespace rdbopen

#endif
