//  Writes to syslog, facility daemon, with the program's name as ident. The library itself writes no other log and
//  nothing to the standard file descriptors. Subjects and texts are made printable (appendPrintable).
//
//      <27>Nov 22 02:48:53 addrpubd: rdbapi: SUBJECT: TEXT
//       |   local time     |
//       facility + level   the program's name
//
//  A line is sent as by syslog(3), but without waiting: if the syslog daemon cannot receive it at once, or if memory is
//  exhausted, the line is lost. Each line is sent on a new socket, so a child process inherits no socket, and a
//  restarted daemon gets the next line.
//
//  Threads: any.
#ifndef RDBAPI_OPEN_ENGINE_REPORT_H
#define RDBAPI_OPEN_ENGINE_REPORT_H

#include <string>
#include <string_view>
#include <time.h>

namespace rdbopen {

//  The functions reportFailure, reportInfo, reportRecovery and sendSyslogLine return false when the line was lost.

//  Reports a failure at priority err. Requires: subject and reason contain no password.
bool reportFailure(std::string_view subject, std::string_view reason) noexcept;

//  Reports an action at priority info.
bool reportInfo(std::string_view subject, std::string_view text) noexcept;

//  Reports a recovery at priority notice.
bool reportRecovery(std::string_view subject, std::string_view text) noexcept;

//  Appends text to line. Bytes that are control characters or invalid UTF-8 are written as \xNN.
void appendPrintable(std::string& line, std::string_view text);

//  Returns the complete syslog line for text. priority: facility and level.
std::string syslogLine(int priority, time_t now, std::string_view text);

//  Sends line to the syslog socket at path, which is a datagram or a stream socket.
bool sendSyslogLine(const char* path, const std::string& line) noexcept;

}  // namespace rdbopen

#endif
