#include "running_service.h"

#include "pidfile.h"
#include "status_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace check {

namespace {

//  Returns the folder of the program of a process, with "/" at its end, or an empty text.
std::string programFolder(pid_t pid) {
    char path[4096];
    const ssize_t length = readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), path, sizeof path);
    if (length <= 0)
        return {};
    const std::string program(path, static_cast<std::size_t>(length));
    return program.substr(0, program.rfind('/') + 1);
}

bool isSameFile(const std::string& left, const std::string& right) {
    struct stat one {};
    struct stat other {};
    return stat(left.c_str(), &one) == 0 && stat(right.c_str(), &other) == 0 && one.st_dev == other.st_dev &&
           one.st_ino == other.st_ino;
}

//  The file is opened for reading only: openPidFile would create it.
RunningService findByPidFile(const std::string& ini, const char* pid_path) {
    const int fd = open(pid_path, O_RDONLY | O_CLOEXEC);
    if (fd == -1)
        return {};
    RunningService found;
    pid_t holder = 0;
    if (queryPidLock(fd, holder) == PidFileState::held)
        found.pid = holder > 0 ? holder : readPidText(fd);
    close(fd);
    if (found.pid < 1)
        return {};
    const std::string folder = programFolder(found.pid);
    found.uses_settings = !folder.empty() && isSameFile(folder + "addrpubd.ini", ini);
    return found;
}

//  The instance NAME has the settings of a file NAME.ini. Only processes of the instance see its pid file at the usual
//  path, so its state file is read instead.
RunningService findInstance(const std::string& ini, const std::string& runtime) {
    constexpr std::string_view ending = ".ini";
    const std::string file = ini.substr(ini.rfind('/') + 1);
    if (!file.ends_with(ending))
        return {};
    const status::Reading reading = status::readState(runtime + "/" + file.substr(0, file.size() - ending.size()));
    if (reading.found != status::Found::running)
        return {};
    return {static_cast<pid_t>(reading.state.pid), true};
}

}  // namespace

RunningService findRunningService(const std::string& ini, const char* pid_path, const std::string& runtime) {
    const RunningService found = findByPidFile(ini, pid_path);
    const RunningService instance = found.uses_settings ? RunningService{} : findInstance(ini, runtime);
    return instance.pid != 0 ? instance : found;
}

}  // namespace check
