//  The service descriptor, the foreground run and the exit signal.
#include "daemon.h"

#include "pidfile.h"
#include "runcls.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <pthread.h>
#include <signal.h>
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

//  Decides whether this process may become the one instance, and says why not. Returns true to go on; else result is
//  what start returns.
bool CDaemon::claimInstance(int& result) {
    std::memcpy(pid_work_path, pid_path, sizeof pid_work_path);
    pid_fd = openPidFile(pid_work_path);
    pid_t holder = -1;
    const PidFileState state = pid_fd == -1 ? PidFileState::no_access : queryPidLock(pid_fd, holder);
    //  0: claimed. A holder that is not visible from this pid namespace is 0 as well: this process goes on, and its
    //  second claim waits until that holder is gone.
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
        CRunCls::forgetLog(run);
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

namespace {

//  Disconnects and gives back a connection.
void closeConnection(std::int32_t& handle) {
    if (handle < 0)
        return;
    rdb_disconnect(handle);
    rdb_destory(handle);
    handle = -1;
}

//  The pointer is cleared before the log goes, so that a callback on another thread finds no half-destroyed log.
void stopApplication(CRunCls& run) {
    if (olk::ilog* log = run.log) {
        log->add(olk::level_inf, "stop addrpubd service success.");
        run.log = nullptr;
        log->release();
    }
    closeConnection(run.rdb_handle);
    closeConnection(run.dns_handle);
}

constinit std::atomic<pthread_t> ending_thread{0};  // 0 while no thread ends the process

//  Returns true once, for the thread that ends the process. Both signals may arrive at the same moment, on two threads:
//  then the other one waits for the end. A second signal on the ending thread itself only goes on.
bool beginsTheEnd() {
    const pthread_t self = pthread_self();
    pthread_t other = 0;
    if (ending_thread.compare_exchange_strong(other, self))
        return true;
    while (pthread_equal(other, self) == 0)
        pause();
    return false;
}

}  // namespace

//  A mask inherited from whoever started the program would keep the signals away.
void installExitSignals() {
    sigset_t exit_signals;
    sigemptyset(&exit_signals);
    for (const int number : {SIGINT, SIGTERM}) {
        signal(number, onExitSignal);
        sigaddset(&exit_signals, number);
    }
    sigprocmask(SIG_UNBLOCK, &exit_signals, nullptr);
}

//  From here on the signals are ignored: one must not interrupt the handling of the other.
void onExitSignal(int signal_number) {
    if (!beginsTheEnd())
        return;
    signal(SIGINT, SIG_IGN);
    signal(SIGTERM, SIG_IGN);
    std::printf("exit signal %d.\n", signal_number);
    if (g_pdaemon != nullptr) {
        if (g_pdaemon->application != nullptr)
            stopApplication(*g_pdaemon->application);
        g_pdaemon->application = nullptr;
        g_pdaemon = nullptr;
    }
    std::exit(0);
}
