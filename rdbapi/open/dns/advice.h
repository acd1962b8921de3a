//  The advice of addrpubd-check on a url of the back end dns: whether the host name fits the zone of the url, whether
//  an address of the host is published, whether each zone of the option "ptr" contains such an address, and whether
//  the password is valid.
#ifndef RDBAPI_OPEN_DNS_ADVICE_H
#define RDBAPI_OPEN_DNS_ADVICE_H

#include "module/module.h"

namespace rdbopen {

//  Requires: the url has no option of TLS.
void adviseOnZone(const UrlUse& use, std::vector<Advice>& advice);

}  // namespace rdbopen

#endif
