//  Displays text of files and servers: on one line, without control characters for the terminal; a url without secrets.
#ifndef TOOLS_SHOW_H
#define TOOLS_SHOW_H

#include <string>
#include <string_view>

namespace check {

//  Returns text. Each byte that is not printable ASCII is written as \xHH, and each backslash is doubled.
std::string printable(std::string_view text);

//  Returns printable(text) in double quotes. Each double quote inside is written as \". Different texts yield different
//  results.
std::string quoted(std::string_view text);

//  Returns url with possible secrets replaced by ***:
//      - the text between "://" (without it: the start of the url) and the last "@" of the whole url, unless a "/"
//        follows "://"
//      - in the query, each option without "=", and the value of each unknown option
//  Known options are those of the log url and of the open client library, except key. The value of a known option is
//  shown if it contains only characters that the option needs.
std::string withoutSecrets(const std::string& url);

}  // namespace check

#endif
