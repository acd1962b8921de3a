//  A password as it is configured: the password itself, or "file:/PATH" for a file that holds it, such as a credential
//  that the service manager hands over.
#ifndef RDBAPI_OPEN_NET_SECRET_H
#define RDBAPI_OPEN_NET_SECRET_H

#include "engine/status.h"

namespace rdbopen {

//  Bytes of a password at most.
inline constexpr std::size_t maxSecretLength = 4096;

//  Returns the password that configured is or names. A file is read again each time, so that a new password takes
//  effect at the next login; one line end at its end is not part of the password. The reason of a failure holds the
//  path and no secret.
Result<std::string> readSecret(const std::string& configured);

}  // namespace rdbopen

#endif
