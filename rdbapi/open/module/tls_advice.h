//  Advice of addrpubd-check on the files that the TLS options of a url name (net/tls_settings.h).
#ifndef RDBAPI_OPEN_MODULE_TLS_ADVICE_H
#define RDBAPI_OPEN_MODULE_TLS_ADVICE_H

#include "module/module.h"

namespace rdbopen {

//  Adds at most one warning of each kind: a file that cannot be used, or a key that does not belong to the certificate;
//  for each of the options "ca" and "cert", a certificate that has expired or expires in less than 14 days; a key file
//  that everybody can read or write.
void adviseOnTls(const UrlUse& use, std::vector<Advice>& advice);

}  // namespace rdbopen

#endif
