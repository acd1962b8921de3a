//  Converts text of files and servers for output: to one line without control characters. Removes secrets from urls.
#ifndef TOOLS_SHOW_H
#define TOOLS_SHOW_H

#include <string>
#include <string_view>

namespace check {

//  Returns text, in which each byte that is not printable ASCII is written as \xHH, and each backslash is doubled.
std::string printable(std::string_view text);

//  Returns printable(text) in double quotes. Each double quote inside is written as \". Different texts yield different
//  results.
std::string quoted(std::string_view text);

//  Returns url with possible secrets replaced by ***:
//      - the text between "://" and the last "@" of the whole url. In a url without "://", the text starts at the start
//        of the url. Text that starts with "/" is not replaced.
//      - in the query, each option without "=", the value of each unknown option, and a value of a known option that
//        contains characters that the option does not need
//  Known options are those of the log url and of the open client library, except "key".
std::string withoutSecrets(const std::string& url);

}  // namespace check

#endif
