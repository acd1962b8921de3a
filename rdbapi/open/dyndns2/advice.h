//  The advice of addrpubd-check on a url of the back end dyndns2. It warns
//   - if the host name has no dot,
//   - if the options `only` and `skip` exclude every address of this host that the service would publish,
//   - if the file of ca=FILE cannot be used, or has a certificate that has expired or expires soon
//     (module/tls_advice.h).
#ifndef RDBAPI_OPEN_DYNDNS2_ADVICE_H
#define RDBAPI_OPEN_DYNDNS2_ADVICE_H

#include "module/module.h"

namespace rdbopen {

void adviseOnProvider(const UrlUse& use, std::vector<Advice>& advice);

}  // namespace rdbopen

#endif
