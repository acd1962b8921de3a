//  The back end sqlite:///PATH: an rdb server in one SQLite file. Tags, their current values and the values they had
//  are rows of its tables; each call is one transaction that is on the disk when the call returns.
#ifndef RDBAPI_OPEN_BACKEND_SQLITE_H
#define RDBAPI_OPEN_BACKEND_SQLITE_H

#include "backend.h"

#include <memory>

namespace rdbopen {

std::unique_ptr<Backend> makeSqliteBackend(const std::string& path);

}  // namespace rdbopen

#endif
