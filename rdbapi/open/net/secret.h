//  A configured password: the password itself, or "file:/PATH". In the second case the file /PATH contains the
//  password. Such a file is, for example, a credential of the service manager.
#ifndef RDBAPI_OPEN_NET_SECRET_H
#define RDBAPI_OPEN_NET_SECRET_H

#include "engine/status.h"

namespace rdbopen {

//  Maximum length of a password from a file, in bytes.
inline constexpr std::size_t maxSecretLength = 4096;

//  Returns the password, or the contents of its file without one final line end. The file is read at each call, so that
//  a changed password is used at the next login. The reason of a failure contains the path, but no secret.
Result<std::string> readSecret(const std::string& configured);

}  // namespace rdbopen

#endif
