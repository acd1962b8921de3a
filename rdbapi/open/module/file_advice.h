//  Advice on a url that names a file, for each back end that keeps one.
#ifndef RDBAPI_OPEN_MODULE_FILE_ADVICE_H
#define RDBAPI_OPEN_MODULE_FILE_ADVICE_H

#include "module/module.h"

namespace rdbopen {

//  Adds a warning if the path contains a folder in which other users can create files: they can replace the file by a link
//  or by another file.
void adviseOnFile(const UrlUse& use, std::vector<Advice>& advice);

}  // namespace rdbopen

#endif
