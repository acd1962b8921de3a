//  The descriptor of the back end `log`, which is part of the client library and not a separate module.
#ifndef RDBAPI_OPEN_DRYRUN_MODULE_H
#define RDBAPI_OPEN_DRYRUN_MODULE_H

#include "module/module.h"

extern "C" const rdbopen::Module rdbapix64_log;

#endif
