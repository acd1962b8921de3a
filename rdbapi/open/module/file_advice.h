//  Advice of addrpubd-check on a url that names a file; used by each back end that stores its data in a file.
#ifndef RDBAPI_OPEN_MODULE_FILE_ADVICE_H
#define RDBAPI_OPEN_MODULE_FILE_ADVICE_H

#include "module/module.h"

namespace rdbopen {

//  Adds a warning if a folder of the path allows other users to create files: they could replace the file by a symbolic
//  link or by another file.
void adviseOnFile(const UrlUse& use, std::vector<Advice>& advice);

}  // namespace rdbopen

#endif
