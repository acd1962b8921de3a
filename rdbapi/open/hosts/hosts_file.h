//  The text of a hosts(5) file, and this library's lines in it.
//
//      127.0.0.1 localhost                          another program's: kept unchanged, at any place
//      2001:db8::7 host1                            another program's, although it has the same name
//      2001:db8::1 host1 # addrpubd host1           an own line of host1
//      |           |     |
//      address     name  mark: the comment "# addrpubd " and the name again, up to the end of the line
//
//  An own line has exactly this form, including single blanks. A line that was edited manually is treated as another
//  program's.
#ifndef RDBAPI_OPEN_HOSTS_HOSTS_FILE_H
#define RDBAPI_OPEN_HOSTS_HOSTS_FILE_H

#include <span>
#include <string>
#include <string_view>

namespace rdbopen {

//  Returns file with the own lines of name replaced by one line for each of addresses, in order. The new lines start at
//  the first own line, or after the last complete line if there is none. A last line without a line feed stays last.
//  Requires: name and addresses are valid (request/dns_request.h).
std::string withHostLines(std::string_view file, std::string_view name, std::span<const std::string> addresses);

}  // namespace rdbopen

#endif
