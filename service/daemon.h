//  The process-wide service descriptor and the control commands.
//
//      -start  start()       claims the pid file, forks, prints what the child reports; the child becomes the service
//      -run    runConsole()  claims the pid file and becomes the service in the foreground
//      -stop   stop()        ends the instance that holds the pid file's lock
//      -status status()      tells whether there is one
//
//  A running service ends only by an exit signal (exitsignal.h). Commands talk on standard output; what a pipe receives is
//  what a terminal shows.
//
//  Threads: the main thread only.
#ifndef SERVICE_DAEMON_H
#define SERVICE_DAEMON_H

class CRunCls;

class CDaemon {
public:
    int pid_fd = -1;                 // descriptor of the pid file; -1 while it is not open
    char pid_work_path[512] = {};    // copy of pid_path made by a start or run before it opens the file
    CRunCls* application = nullptr;  // the service object, once it has started; else null
    int msg_key = 0;                 // System V key of the control queue
    char pid_path[512] = {};
    char service_name[512] = {};
    char version[512] = {};

    //  Starts the service in the background. Returns, in the parent, 0 after the child's report and when an instance
    //  runs already, 1 without access, -1 when there is no child; in a child that could not change its directory, 2.
    int start();

    //  Ends the running instance by SIGTERM, and by SIGKILL after timeout_seconds of waiting, at once when that is below
    //  1.
    void stop(int timeout_seconds);

    //  Prints whether an instance runs.
    void status();

    //  Runs the service in the foreground. Returns only when it does not come up.
    void runConsole();

    //  Prints the usage text.
    void usage() const;

    //  Takes the pid file's lock on pid_fd, waiting for it, and writes this process's pid. Returns 0, or -1 on failure.
    int writePid();

    //  Closes the pid file, which releases its lock.
    void closePidFile();

private:
    bool claimInstance(int& result);
    int runChild();
    void awaitChild();
    bool awaitRelease(int timeout_seconds) const;
};

//  The one descriptor, and the exit signal's way to it; the pointer is null once the exit signal has been handled.
extern CDaemon g_daemon;
extern CDaemon* g_pdaemon;

#endif
