//  Advice of addrpubd-check on the files that the TLS options of a url name (net/tls_settings.h).
#ifndef RDBAPI_OPEN_MODULE_TLS_ADVICE_H
#define RDBAPI_OPEN_MODULE_TLS_ADVICE_H

#include "module/module.h"

namespace rdbopen {

//  Adds warnings: for the first file that cannot be used, a key that other users can read or write, a key that does not
//  belong to the certificate, and the first certificate of a file that has expired or expires within 14 days.
void adviseOnTls(const UrlUse& use, std::vector<Advice>& advice);

}  // namespace rdbopen

#endif
