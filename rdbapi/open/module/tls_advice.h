//  Advice on the files of a url with TLS (net/tls_settings.h), for each back end that has it.
#ifndef RDBAPI_OPEN_MODULE_TLS_ADVICE_H
#define RDBAPI_OPEN_MODULE_TLS_ADVICE_H

#include "module/module.h"

namespace rdbopen {

//  Adds a warning for a file that cannot be used, a key that others can read or write, a key of another certificate,
//  and a certificate that has expired or does so within 14 days.
void adviseOnTls(const UrlUse& use, std::vector<Advice>& advice);

}  // namespace rdbopen

#endif
