//  Sends a line to the local syslog daemon as syslog(3) does, but never waits for it: a daemon that does not read loses
//  the line.
//
//      <27>Nov 22 02:48:53 addrpubd: TEXT
//       |   local time     |
//       facility + level   the program's name
//
//  Each line has a socket of its own, so that nothing is left to close in a child and a daemon that was started again is
//  found again.
//
//  Threads: any.
#ifndef RDBAPI_OPEN_ENGINE_SYSLOG_LINE_H
#define RDBAPI_OPEN_ENGINE_SYSLOG_LINE_H

#include <string>
#include <string_view>
#include <time.h>

namespace rdbopen {

//  Returns the line. priority: facility and level.
std::string syslogLine(int priority, time_t now, std::string_view text);

//  Sends line to the daemon's socket at path, a datagram socket or else a stream socket. Returns false when it was lost.
bool sendSyslogLine(const char* path, const std::string& line) noexcept;

}  // namespace rdbopen

#endif
