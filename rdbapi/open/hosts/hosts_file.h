//  The text of a hosts(5) file, and this library's lines in it.
//
//      127.0.0.1 localhost                          line of another program: kept unchanged
//      2001:db8::7 host1                            line of another program, although the name is the same
//      2001:db8::1 host1 # addrpubd host1           line of this library for host1 ("own line")
//      |           |     |
//      address     name  mark: the comment "# addrpubd " and the name again, up to the end of the line
//
//  An own line has exactly this form, with single blanks and a line feed. If its form is changed manually, it is
//  treated as a line of another program.
#ifndef RDBAPI_OPEN_HOSTS_HOSTS_FILE_H
#define RDBAPI_OPEN_HOSTS_HOSTS_FILE_H

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace rdbopen {

//  Returns the text in file, with the own lines of name replaced by one line for each of addresses, in order. The new
//  lines start at the first own line. Without an own line, they start after the last line that ends with a line feed. A
//  last line without a line feed stays last. Requires: name and addresses are valid (request/dns_request.h).
std::string withHostLines(std::string_view file, std::string_view name, std::span<const std::string> addresses);

//  The lines of a file that concern a host, without line feeds.
struct HostLines {
    std::vector<std::string> own;
    std::vector<std::string> others;  // lines of other programs that have the name after their first word
};

//  Returns the own lines of name in file, and the lines of other programs that contain this name (hosts(5)).
HostLines hostLines(std::string_view file, std::string_view name);

}  // namespace rdbopen

#endif
