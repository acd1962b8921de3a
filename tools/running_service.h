//  Finds out whether the service runs on this machine: from the lock of its pid file, or from the state file of an
//  instance.
#ifndef TOOLS_RUNNING_SERVICE_H
#define TOOLS_RUNNING_SERVICE_H

#include <string>

#include <sys/types.h>

namespace check {

struct RunningService {
    pid_t pid = 0;               // 0 if no service runs, or if this cannot be found out
    bool uses_settings = false;  // its settings are those of the given file
};

//  Queries the lock of the pid file at pid_path, which is neither created nor changed. ini: path of the given file.
//  A service whose program or settings cannot be found out, such as one of another user, is treated as one with other
//  settings.
//
//  If the pid file shows no service with the settings of ini, and ini is named NAME.ini, this function also searches
//  for the instance NAME (unit addrpubd@NAME.service). If the state file in the folder runtime/NAME shows that the
//  instance runs, the instance is the result, and uses_settings is true.
RunningService findRunningService(const std::string& ini, const char* pid_path = "/var/run/addrpubd.pid",
                                  const std::string& runtime = "/run/addrpubd");

}  // namespace check

#endif
