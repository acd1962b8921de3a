//  Whether the service runs on this machine, according to the lock of its pid file or the state of an instance.
#ifndef TOOLS_RUNNING_SERVICE_H
#define TOOLS_RUNNING_SERVICE_H

#include <string>

#include <sys/types.h>

namespace check {

struct RunningService {
    pid_t pid = 0;               // 0: none runs, or this cannot be found out
    bool uses_settings = false;  // its settings are those of the given file
};

//  Queries the lock of the pid file at pid_path, which is neither created nor changed. ini: path of the file whose
//  use is of interest. A service whose program or settings cannot be found out, such as one of another user, is treated
//  as one with other settings.
//
//  If no service with the settings ini is found so, this function also searches for an instance of the unit: for a file
//  NAME.ini, the instance NAME. If the state file in the folder runtime/NAME shows that this instance runs, it is the
//  result, and is treated as a service with these settings.
RunningService findRunningService(const std::string& ini, const char* pid_path = "/var/run/addrpubd.pid",
                                  const std::string& runtime = "/run/addrpubd");

}  // namespace check

#endif
