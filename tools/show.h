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

//  Returns url with *** for what may be a secret in it: all in front of the last "@" of its server part, and the values
//  of options whose names speak of a key, a password, a secret or a token.
std::string withoutSecrets(const std::string& url);

}  // namespace check

#endif
