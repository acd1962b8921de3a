//  The advice of addrpubd-check on a url of the back end dyndns2: whether the host name is a full name, whether an
//  address of the host is published, and whether the file of ca=FILE can be used or has a certificate that expires soon
//  (module/tls_advice.h).
#ifndef RDBAPI_OPEN_DYNDNS2_ADVICE_H
#define RDBAPI_OPEN_DYNDNS2_ADVICE_H

#include "module/module.h"

namespace rdbopen {

void adviseOnProvider(const UrlUse& use, std::vector<Advice>& advice);

}  // namespace rdbopen

#endif
