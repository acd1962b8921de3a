//  CDaemon, the process descriptor (pid file, paths, queue), and the commands.
//
//      -start  start()       claims the pid file, forks, prints what the child reports; the child becomes the service
//      -run    runConsole()  claims the pid file and becomes the service in the foreground
//      -stop   stop()        ends the instance that holds the pid file's lock
//      -status status()      prints whether an instance runs
//
//  In a running service, start and runConsole do not return: an exit signal ends the service (exitsignal.h). Commands
//  print to standard output. The text is the same on a pipe and on a terminal.
//
//  Threads: only the main thread may use the process descriptor.
#ifndef SERVICE_DAEMON_H
#define SERVICE_DAEMON_H

class CRunCls;

class CDaemon {
public:
    int pid_fd = -1;                 // descriptor of the pid file; -1 if not open
    char pid_work_path[512] = {};    // copy of pid_path, made before start or runConsole opens the file
    CRunCls* application = nullptr;  // the service object after its start; otherwise null
    int msg_key = 0;                 // System V key of the control queue
    char pid_path[512] = {};
    char service_name[512] = {};
    char version[512] = {};

    //  Starts the service in the background. Return values in the parent:
    //      0    after the child's reports, after the time limit for them, or if an instance already runs
    //      1    if the pid file cannot be opened, queried or claimed, or if the kernel reports -1 as the holder of its
    //           lock
    //      -1   if fork fails
    //  The child returns 2 if it cannot change its directory; otherwise it does not return.
    int start();

    //  Ends the running instance with SIGTERM. Then queries the lock at once and after each second, timeout_seconds
    //  times in all. If the lock is held each time, sends SIGKILL one second after the last query. If timeout_seconds
    //  is below 1, sends SIGKILL at once.
    void stop(int timeout_seconds);

    //  Prints whether an instance runs.
    void status();

    //  Runs the service in the foreground. Returns only if an instance already runs, if the pid file cannot be used, or
    //  if the start fails.
    void runConsole();

    //  Prints the usage text.
    void usage() const;

    //  Waits for the lock of the pid file on pid_fd, takes it and writes the pid of this process. Returns 0, or -1 on
    //  failure.
    int writePid();

    //  Closes the pid file, which releases its lock.
    void closePidFile();

private:
    bool claimInstance(int& result);
    int runChild();
    void awaitChild();
    bool awaitRelease(int timeout_seconds) const;
};

//  The process descriptor, and the pointer through which the exit signal finds it. The exit signal sets this pointer to
//  null.
extern CDaemon g_daemon;
extern CDaemon* g_pdaemon;

#endif
