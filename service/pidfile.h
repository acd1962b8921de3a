//  The pid file and its lock.
//
//      /var/run/addrpubd.pid     "<pid>\n"     a POSIX record lock on the whole file, held by the instance
//
//  While the lock is held, an instance runs or starts. A file without a lock has no meaning: an earlier run left it,
//  another command created it, or systemd-tmpfiles did (packaging/system/addrpubd.tmpfiles). The program reads the text
//  only if the kernel reports -1 as the holder; addrpubd-check also reads it if the kernel reports 0. The program never
//  deletes the file. A record lock belongs to one process, and a child does not inherit it. If a process closes any
//  descriptor of the file, it loses the lock, even if it took the lock with another descriptor (fcntl(2), F_SETLK).
#ifndef SERVICE_PIDFILE_H
#define SERVICE_PIDFILE_H

#include <sys/types.h>

enum class PidFileState {
    free,       // no process holds the lock
    held,       // a process holds the lock
    no_access,  // the file cannot be opened, or its lock cannot be queried
};

//  Opens the pid file for reading and writing; creates it with mode 0644 if it does not exist. Returns the descriptor,
//  which the caller owns, or -1. This is the only check of the user's privileges.
int openPidFile(const char* path);

//  Queries the lock on fd. If the state is held, sets holder to the pid of the process that holds the lock. This is 0
//  for a process in a pid namespace that is not visible here, and -1 for a lock that belongs to an open file
//  description (F_OFD_SETLK). In other states holder is unchanged.
PidFileState queryPidLock(int fd, pid_t& holder);

//  Waits for the lock on fd, takes it and replaces the contents of the file by the pid of this process. Returns 0, or
//  -1 on failure. After a failure this process may still hold the lock.
int claimPidFile(int fd);

//  Returns the number at the start of the file's text, 0 if the text does not start with a number, or -1 if the file is
//  empty or cannot be read, or if the number does not fit pid_t.
pid_t readPidText(int fd);

//  Opens the file, queries the lock and closes the file. If the kernel reports -1 as the holder, reads the pid from the
//  text of the file.
PidFileState probePidFile(const char* path, pid_t& holder);

#endif
