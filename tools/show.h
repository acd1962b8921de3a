//  How text of the file is shown: on one line, harmless to a terminal, and without a secret.
#ifndef TOOLS_SHOW_H
#define TOOLS_SHOW_H

#include <string>
#include <string_view>

namespace check {

//  Returns text with every byte but printable ASCII as \xHH, and a backslash doubled.
std::string printable(std::string_view text);

//  Returns the same between double quotes, with those inside as \". Two different texts are never shown alike.
std::string quoted(std::string_view text);

//  Returns url with *** for what may be a secret in it: everything between "://" and the last "@" of the whole url,
//  unless a "/" follows "://", and in the query every option that has no "=" and every value of an option that is
//  neither the log address's nor the open client library's. Values of these are shown as long as they are words,
//  numbers or lists.
std::string withoutSecrets(const std::string& url);

}  // namespace check

#endif
