//  The text of a hosts(5) file, and this library's lines in it.
//
//      127.0.0.1 localhost                          somebody else's: kept byte for byte, wherever it stands
//      2001:db8::7 host1                            somebody else's, although it names the same host
//      2001:db8::1 host1 # addrpubd host1           an own line of host1
//      |           |     |
//      address     name  mark: the comment "# addrpubd " and the name again, up to the end of the line
//
//  An own line is one that has exactly this form, single blanks included. A line that was edited by hand is somebody
//  else's from then on.
#ifndef RDBAPI_OPEN_HOSTS_HOSTS_FILE_H
#define RDBAPI_OPEN_HOSTS_HOSTS_FILE_H

#include <span>
#include <string>
#include <string_view>

namespace rdbopen {

//  Returns file with the own lines of name replaced by one line for each of addresses, in their order. They stand where
//  the first own line stood, otherwise behind the last complete line. A last line without a line feed stays the last.
//  Requires: name and addresses are valid (request/dns_request.h).
std::string withHostLines(std::string_view file, std::string_view name, std::span<const std::string> addresses);

}  // namespace rdbopen

#endif
