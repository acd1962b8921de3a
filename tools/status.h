//  The option --status of addrpubd-check: reports what a running service does, as text, JSON or metrics.
//
//      addrpubd-check --status [--json | --prometheus] [INSTANCE | FOLDER]
//
//  Exit status 0: every server has confirmed the addresses. 1: a server has not, or the state has no server. 2: no
//  service is running, its state cannot be read, the command line is wrong, or the output cannot be written. The last
//  state of a service that has ended is never reported as its present one.
//
//  Threads: any.
#ifndef TOOLS_STATUS_H
#define TOOLS_STATUS_H

#include "status_file.h"

namespace status {

constexpr int exit_confirmed = 0;
constexpr int exit_late = 1;
constexpr int exit_not_running = 2;

//  Runs the command for the words after --status. usage: the text for a wrong command line. Writes the state to
//  standard output, errors to standard error. Returns the exit status; main tests whether the output could be
//  written.
int run(int count, char** words, const char* usage);

//  Returns the present time.
Time timeNow();

//  Returns whether the server has confirmed everything in time.
bool isConfirmed(const Server& server, Time now);

//  Returns the exit status for a reading.
int exitStatus(const Reading& reading, Time now);

//  Returns one line for each server, or one line with the reason why there is no present state. colours: with escape
//  sequences of a terminal.
std::string textOf(const Reading& reading, const std::string& folder, Time now, bool colours);

//  Returns one JSON object and a line feed.
std::string jsonOf(const Reading& reading, const std::string& folder, Time now);

//  Returns metrics in the text format of Prometheus.
std::string metricsOf(const Reading& reading, Time now);

//  Returns time in seconds since 1970 with three decimals. The result is the present system time minus the age of time,
//  computed from the member boot of both. So it is correct even if the system time was changed in between.
std::string secondsText(Time time, Time now);

//  For an update request, returns the name and addresses that it publishes, or the request itself if it has another
//  form. For any other item, returns name and value.
std::string summaryOf(const Item& item);

//  Returns the reason why there is no present state. Requires: reading.found is not running.
std::string absence(const Reading& reading, const std::string& folder, Time now);

//  Returns a duration in words, such as "2 minutes".
std::string duration(std::int64_t ms);

}  // namespace status

#endif
