//  The pid file and its lock.
//
//      /var/run/addrpubd.pid     "<pid>\n"     a POSIX record lock over the whole file, held by the running instance
//
//  The lock is what proves that an instance is alive; a file without one is a leftover. The text is a fallback for a
//  holder that the kernel reports without a pid. The file is never deleted. A record lock is its process's own: a child
//  does not get it, and closing one descriptor of the file gives it up, even if another was locked (fcntl(2), F_SETLK).
#ifndef SERVICE_PIDFILE_H
#define SERVICE_PIDFILE_H

#include <sys/types.h>

enum class PidFileState {
    free,       // nobody holds the lock
    held,       // somebody does
    no_access,  // the file or its lock cannot be had
};

//  Opens the pid file for reading and writing and creates it when it is missing, with mode 0644. Returns the
//  descriptor, owned by the caller, or -1. Being able to is the only privilege test there is.
int openPidFile(const char* path);

//  Asks the kernel who holds the lock on fd. When the state is held, holder receives the pid: 0 when that process lives
//  in a pid namespace that is not visible here, -1 when the lock belongs to no process. Else holder stays as it is.
PidFileState queryPidLock(int fd, pid_t& holder);

//  Waits for the lock on fd, takes it, and makes this process's pid the file's only content. Returns 0, or -1 on
//  failure; the lock may then be held.
int claimPidFile(int fd);

//  Returns the number at the start of the file's text, 0 when there is none, or -1 when nothing can be read or the number
//  is no pid_t.
pid_t readPidText(int fd);

//  Opens the file, asks for the lock's holder and closes the file. A holder that the kernel does not name is taken from
//  the text.
PidFileState probePidFile(const char* path, pid_t& holder);

#endif
