//  The library's only way to say something: syslog, facility daemon. Nothing goes to the standard descriptors, and the
//  ident is the program's own. Bytes that are control characters or no UTF-8 are written as \xNN. No line is waited for
//  (syslog_line.h), and the one for which there is no memory is lost.
#ifndef RDBAPI_OPEN_ENGINE_REPORT_H
#define RDBAPI_OPEN_ENGINE_REPORT_H

#include <string_view>

namespace rdbopen {

//  Each returns false when the line was lost.

//  Reports at priority err "rdbapi: <subject>: <reason>". Requires: neither text holds a password.
bool reportFailure(std::string_view subject, std::string_view reason) noexcept;

//  Reports at priority info what is or would be done.
bool reportNote(std::string_view subject, std::string_view text) noexcept;

//  Reports at priority notice.
bool reportRecovery(std::string_view subject, std::string_view text) noexcept;

}  // namespace rdbopen

#endif
