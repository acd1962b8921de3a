//  CDaemon: the pid file, the claim to be the only instance, the run in the foreground, and the usage text.
#include "daemon.h"

#include "exitsignal.h"
#include "pidfile.h"
#include "runcls.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

constinit CDaemon g_daemon;
constinit CDaemon* g_pdaemon = &g_daemon;

namespace {

[[maybe_unused]] const int registered = std::atexit([] { g_daemon.closePidFile(); });

}  // namespace

int CDaemon::writePid() {
    return claimPidFile(pid_fd);
}

void CDaemon::closePidFile() {
    if (pid_fd >= 0)
        close(pid_fd);
    pid_fd = -1;
}

//  Determines whether this process may become the instance. If it may, returns true. Otherwise prints the reason and
//  sets result to the return value of start.
bool CDaemon::claimInstance(int& result) {
    std::memcpy(pid_work_path, pid_path, sizeof pid_work_path);
    pid_fd = openPidFile(pid_work_path);
    pid_t holder = -1;
    const PidFileState state = pid_fd == -1 ? PidFileState::no_access : queryPidLock(pid_fd, holder);
    //  outcome is 0 if this process has claimed the lock. It is also 0 if the holder is in a pid namespace that is not
    //  visible here. The start then continues, and its second claim, in runConsole or runChild, waits until the holder
    //  releases the lock.
    int outcome = -1;
    if (state == PidFileState::free)
        outcome = writePid();
    else if (state == PidFileState::held)
        outcome = holder;

    if (outcome == -1) {
        std::puts("Access Error! Please use root account!");
        result = 1;
    } else if (outcome != 0) {
        std::printf("%s alreay runging! pid = %d\n", service_name, outcome);
        result = 0;
    }
    return outcome == 0;
}

void CDaemon::runConsole() {
    int unused = 0;
    if (!claimInstance(unused))
        return;
    writePid();
    auto* run = new CRunCls;
    if (run == nullptr || !run->start()) {
        std::puts("Start failed!");
        CRunCls::detachLog(run);
        return;
    }
    application = run;
    std::puts("Start success!\n");
    installExitSignals();
    for (;;)
        run->publishOnce();
}

void CDaemon::usage() const {
    std::printf("usage:%s [-start] | [-stop] | [-status] | [-ver]\n", service_name);
    std::puts("demo:");
    std::printf("%s -start\n", service_name);
    std::puts("    Start the service or run in background");
    std::printf("%s -stop\n", service_name);
    std::printf("    Stop %s\n", service_name);
    std::printf("%s -status\n", service_name);
    std::printf("    Check if %s is running\n", service_name);
    std::printf("%s -ver\n", service_name);
    std::printf("    view the version of %s\n", service_name);
    std::printf("%s -run\n", service_name);
    std::puts("    Run in console");
    std::puts("");
    std::printf("%s %s\n", service_name, version);
    std::puts("");
}
