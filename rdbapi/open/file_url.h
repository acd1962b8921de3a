//  What the urls of the embedded back ends have in common: SCHEME:///PATH, one file on this machine.
#ifndef RDBAPI_OPEN_FILE_URL_H
#define RDBAPI_OPEN_FILE_URL_H

#include "url.h"

namespace rdbopen {

//  Returns false when url names anything but one file by its absolute path, with the reason.
bool namesOneFile(const Url& url, std::string& reason);

}  // namespace rdbopen

#endif
