//  The library's only way to report something: syslog, facility daemon. Nothing goes to the standard descriptors, and
//  the ident is the program's own. Bytes that are control characters or no UTF-8 are written as \xNN.
//
//      <27>Nov 22 02:48:53 addrpubd: rdbapi: SUBJECT: TEXT
//       |   local time     |
//       facility + level   the program's name
//
//  A line is sent as syslog(3) does, but never waited for: a daemon that does not read loses it, and so is one for
//  which there is no memory. Each line has a socket of its own, so that nothing is left to close in a child and a
//  daemon that was started again is found again.
//
//  Threads: any.
#ifndef RDBAPI_OPEN_ENGINE_REPORT_H
#define RDBAPI_OPEN_ENGINE_REPORT_H

#include <string>
#include <string_view>
#include <time.h>

namespace rdbopen {

//  Each returns false when the line was lost.

//  Reports a failure at priority err. Requires: neither text holds a password.
bool reportFailure(std::string_view subject, std::string_view reason) noexcept;

//  Reports at priority info what is or would be done.
bool reportInfo(std::string_view subject, std::string_view text) noexcept;

//  Reports at priority notice.
bool reportRecovery(std::string_view subject, std::string_view text) noexcept;

//  Returns the line of text. priority: facility and level.
std::string syslogLine(int priority, time_t now, std::string_view text);

//  Sends line to the daemon's socket at path, a datagram socket or else a stream socket.
bool sendSyslogLine(const char* path, const std::string& line) noexcept;

}  // namespace rdbopen

#endif
