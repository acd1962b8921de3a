//  Advice of addrpubd-check on the path in a url: the file of sqlite or hosts, or the socket of redis+unix.
#ifndef RDBAPI_OPEN_MODULE_FILE_ADVICE_H
#define RDBAPI_OPEN_MODULE_FILE_ADVICE_H

#include "module/module.h"

namespace rdbopen {

//  Adds a warning if a folder of the path is sticky and all users may write to it, such as /tmp: before the file or
//  socket exists, another user could create a file, a socket or a symbolic link of this name.
void adviseOnFile(const UrlUse& use, std::vector<Advice>& advice);

}  // namespace rdbopen

#endif
