//  The back end sqlite:///PATH: an rdb server in one SQLite file. Tags, their current values and their history are rows
//  of its tables; each call is one transaction, which is on the disk when the call returns.
#ifndef RDBAPI_OPEN_SQLITE_BACKEND_H
#define RDBAPI_OPEN_SQLITE_BACKEND_H

#include "engine/backend.h"
#include "net/url.h"

#include <memory>

namespace rdbopen {

//  Returns errorNone, or errorBadUrl with the reason. Ignores user and password: the file system controls access.
int makeSqliteBackend(const Url& url, const Credentials& credentials, std::unique_ptr<Backend>& backend,
                      std::string& reason);

}  // namespace rdbopen

#endif
