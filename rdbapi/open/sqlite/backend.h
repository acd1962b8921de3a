//  The back end sqlite:///PATH[?history=NUMBER]: an rdb server in one SQLite file. Tags, their current values and their
//  history are rows of its tables. Each import and each put is one transaction, which is flushed to the disk before the
//  call returns.
#ifndef RDBAPI_OPEN_SQLITE_BACKEND_H
#define RDBAPI_OPEN_SQLITE_BACKEND_H

#include "engine/backend.h"
#include "net/url.h"

namespace rdbopen {

//  Makes the back end. Fails with errorBadUrl. Ignores user and password: the file system controls access.
BackendResult makeSqliteBackend(const Url& url, const Credentials& credentials);

}  // namespace rdbopen

#endif
