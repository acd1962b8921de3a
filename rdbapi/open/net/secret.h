//  A configured password: the password itself, or "file:/PATH" for a file that contains it, such as a credential from
//  the service manager.
#ifndef RDBAPI_OPEN_NET_SECRET_H
#define RDBAPI_OPEN_NET_SECRET_H

#include "engine/status.h"

namespace rdbopen {

//  Maximum length of a password in bytes.
inline constexpr std::size_t maxSecretLength = 4096;

//  Returns the password, or the contents of its file. A file is read each time, so that a new password is used at the
//  next login; one line end at its end is not part of the password. The reason of a failure contains the path and no
//  secret.
Result<std::string> readSecret(const std::string& configured);

}  // namespace rdbopen

#endif
