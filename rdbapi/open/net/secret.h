//  A password as it is configured: the password itself, or "file:/PATH" for a file that holds it, such as a credential
//  that the service manager hands over.
#ifndef RDBAPI_OPEN_NET_SECRET_H
#define RDBAPI_OPEN_NET_SECRET_H

#include <string>

namespace rdbopen {

//  Bytes of a password at most.
inline constexpr std::size_t maxSecretLength = 4096;

//  Stores the password behind configured. A file is read anew each time, so that a new password counts from the next
//  login on; one line end at its end does not belong to it. Returns an empty text, or the reason of the failure, which
//  holds the path and no secret.
std::string readSecret(const std::string& configured, std::string& secret);

}  // namespace rdbopen

#endif
