//  Advice of addrpubd-check on a url that names a file; used by each back end that stores its data in a file.
#ifndef RDBAPI_OPEN_MODULE_FILE_ADVICE_H
#define RDBAPI_OPEN_MODULE_FILE_ADVICE_H

#include "module/module.h"

namespace rdbopen {

//  Adds a warning if a folder of the path is sticky and all users may write to it, such as /tmp: before the service
//  creates the file, another user could create a file or a symbolic link of this name.
void adviseOnFile(const UrlUse& use, std::vector<Advice>& advice);

}  // namespace rdbopen

#endif
