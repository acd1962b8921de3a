//  Child processes for tests of the pid file, because a lock belongs to a process, and for tests of the running
//  service, because it never returns.
#ifndef SERVICE_CHILD_H
#define SERVICE_CHILD_H

#include <functional>
#include <string>

#include <sys/types.h>

struct Ended {
    int status = -1;  // exit status, or the negative signal number
    std::string out;  // output
};

//  Runs body in a child and waits for it. If body returns, the child exits with status 99.
Ended inChild(const std::function<void()>& body);

//  A process that holds a write lock on a whole file.
class LockHolder {
public:
    explicit LockHolder(const std::string& path);
    ~LockHolder() { release(); }
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;
    pid_t pid() const { return pid_; }
    //  Ends the process and waits until it has ended.
    void release();

private:
    pid_t pid_;
    int keep_;  // write end of the pipe on which the process waits
};

//  Returns the pid of the lock's holder, 0 if the file is not locked, -1 if the lock belongs to no process.
pid_t holderOf(const std::string& path);

#endif
