//  Displays text of the file: on one line, without control characters for the terminal, and without secrets.
#ifndef TOOLS_SHOW_H
#define TOOLS_SHOW_H

#include <string>
#include <string_view>

namespace check {

//  Returns text with each byte outside printable ASCII as \xHH, and each backslash doubled.
std::string printable(std::string_view text);

//  Returns printable(text) in double quotes, with each double quote inside as \". Different texts yield different
//  results.
std::string quoted(std::string_view text);

//  Returns url with possible secrets replaced by ***: everything between "://" and the last "@" of the whole url,
//  unless a "/" follows "://"; in the query, each option without "=" and the value of each unknown option. Known
//  options are those of the log address and of the open client library; their values are shown if they are words,
//  numbers or lists of them.
std::string withoutSecrets(const std::string& url);

}  // namespace check

#endif
