//  The commands -stop and -status. An empty line follows each of their messages.
#include "daemon.h"
#include "pidfile.h"

#include <cstdio>

#include <signal.h>
#include <unistd.h>

namespace {

void printNoAccess() {
    std::puts("Access Error! Please use root account!");
    std::putchar('\n');
}

void printNotRunning(const char* service_name) {
    std::printf("%s not run!\n", service_name);
    std::putchar('\n');
}

void killForTimeout(pid_t pid, int timeout_seconds, const char* service_name) {
    kill(pid, SIGKILL);
    std::printf("%d second Timeout,%s be killed!\n", timeout_seconds, service_name);
    std::putchar('\n');
}

}  // namespace

void CDaemon::stop(int timeout_seconds) {
    pid_t pid = -1;
    const PidFileState state = probePidFile(pid_path, pid);
    if (state == PidFileState::no_access || (state == PidFileState::held && pid == -1)) {
        printNoAccess();
        return;
    }
    if (state == PidFileState::free || pid < 1) {
        printNotRunning(service_name);
        return;
    }
    std::printf("stop %s... pid = %d\n", service_name, pid);
    std::putchar('\n');
    kill(pid, SIGTERM);
    if (timeout_seconds < 1 || !awaitRelease(timeout_seconds)) {
        killForTimeout(pid, timeout_seconds, service_name);
        return;
    }
    std::printf("%s stoped gracefully!\n", service_name);
    std::putchar('\n');
}

//  Queries the lock once a second, at most timeout_seconds times. Returns true when the lock is free, cannot be
//  queried, or has a holder without a known pid. Does not detect that the instance has released the lock if another
//  instance has taken it since the last query.
bool CDaemon::awaitRelease(int timeout_seconds) const {
    for (int checks = 0; checks < timeout_seconds; ++checks) {
        pid_t pid = -1;
        if (probePidFile(pid_path, pid) != PidFileState::held || pid < 1)
            return true;
        sleep(1);
    }
    return false;
}

void CDaemon::status() {
    pid_t pid = -1;
    const PidFileState state = probePidFile(pid_path, pid);
    if (state == PidFileState::no_access || (state == PidFileState::held && pid == -1))
        printNoAccess();
    else if (state == PidFileState::free || pid == 0)
        printNotRunning(service_name);
    else
        std::printf("%s is runing!\n\n", service_name);
}
