//  Validation of host names, and their lower-case form.
//
//  Threads: any thread may call these functions.
#ifndef RDBAPI_OPEN_NET_HOST_NAME_H
#define RDBAPI_OPEN_NET_HOST_NAME_H

#include <string>
#include <string_view>

namespace rdbopen {

//  Returns whether name has the form of a host name without a final dot: labels of 1 to 63 letters, digits, "-" and
//  "_", together 1 to 253 characters (RFC 1035 section 2.3.4). Unlike RFC 1123 section 2.1, allows "_" everywhere, and
//  "-" at the start and the end of a label. Such a name needs no escaping in a zone, a message, a hosts file or JSON.
bool isDnsName(std::string_view name);

//  Returns text with A to Z in lower case, independent of the locale.
std::string lowerCase(std::string_view text);

}  // namespace rdbopen

#endif
