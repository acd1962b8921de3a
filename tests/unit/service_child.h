//  Child processes for tests of the pid file and of runs that end the process: locks belong to processes, and a service
//  never returns.
#ifndef SERVICE_CHILD_H
#define SERVICE_CHILD_H

#include <functional>
#include <string>

#include <sys/types.h>

struct Ended {
    int status = -1;  // exit status, or minus the signal
    std::string out;  // what it printed
};

//  Runs body in a child and waits for it. A body that returns ends the child with status 99.
Ended inChild(const std::function<void()>& body);

//  Holds a write lock over a whole file in a process of its own.
class LockHolder {
public:
    explicit LockHolder(const std::string& path);
    ~LockHolder() { release(); }
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;
    pid_t pid() const { return pid_; }
    //  Ends the holder and waits until it is gone.
    void release();

private:
    pid_t pid_;
    int keep_;  // write end of the pipe that the holder waits on
};

//  Returns the pid that holds the lock of the file, 0 when nobody does, -1 when the lock belongs to no process.
pid_t holderOf(const std::string& path);

#endif
