//  The state file: what this process does, for addrpubd-check --status. docs/user/state.md describes the format.
//
//      FOLDER/state          the newest state, mode 0644; a write lock on it lasts as long as this process
//      FOLDER/state.new      the next state, until it is renamed
//      FOLDER/state.lock     the lock by which one of several processes becomes the writer; mode 0600
//
//  FOLDER is the first entry of RUNTIME_DIRECTORY or, if that is not an absolute path, /run/addrpubd. It is never
//  created. The state is a help for people, so nothing depends on it: each error is ignored, and the next write tries
//  again. No syscall of a write waits for another process.
//
//  If a reader finds no write lock on FOLDER/state, the writer has ended without removing the file. The lock is on the
//  file itself, so the test is valid for exactly the file that was read. Another lock, on FOLDER/state.lock, selects
//  the writer. Only root and the user of the service can open FOLDER/state.lock. So no other user can set a read lock
//  on this file, which would prevent each process from becoming the writer.
//  All locks belong to an open file description, so a child that keeps the descriptors after fork keeps the locks; the
//  service does not fork after its first connection.
//
//  A state that cannot be replaced is removed, because it is no longer true. On a full disk this makes room for the new
//  one, which is then written at once.
//
//  Threads: write on one thread at a time; the other operations on any thread. connectionOpened and connectionClosed
//  are async-signal-safe.
#ifndef RDBAPI_OPEN_ENGINE_STATE_FILE_H
#define RDBAPI_OPEN_ENGINE_STATE_FILE_H

#include <atomic>
#include <string_view>
#include <sys/types.h>

namespace rdbopen {

class StateFile {
public:
    constexpr StateFile() = default;
    StateFile(const StateFile&) = delete;
    StateFile& operator=(const StateFile&) = delete;

    //  Sets the folder: runtimeDirectory is the value of RUNTIME_DIRECTORY, or null. Only the first call has an effect.
    //  write does nothing before this call has set the paths, or if the path of the folder is too long. A later
    //  call returns at once, also while the first one still runs. Not async-signal-safe.
    void chooseFolder(const char* runtimeDirectory);

    //  Count the open connections. When the last one is closed, connectionClosed removes the state file if this process
    //  is the writer; a write at the same time leaves no file.
    void connectionOpened() noexcept { ++open_; }
    void connectionClosed() noexcept;

    //  Replaces the file. Does nothing if no connection is open, the folder does not exist or cannot be written, or
    //  another process is the writer.
    void write(std::string_view text) noexcept;

private:
    bool lock() noexcept;
    void giveLockToOwner() const noexcept;
    bool replace(std::string_view text) noexcept;
    int createNew(std::string_view text) const noexcept;
    void closeCurrent() noexcept;
    void remove() const noexcept;

    static constexpr std::size_t maxPath = 256;  // bytes of the path of a file, with its NUL

    std::atomic<int> open_{0};
    std::atomic<bool> chosen_{false};  // chooseFolder was called
    std::atomic<bool> ready_{false};   // the paths are set and constant
    std::atomic<pid_t> writer_{0};     // pid of this process while it is the writer, else 0; after fork, the parent's
    int lockFd_ = -1;
    int currentFd_ = -1;  // open descriptor of FOLDER/state, which keeps its lock; -1 if none
    //  Not read before ready_ is true.
    char statePath_[maxPath] = {};
    char newPath_[maxPath] = {};
    char lockPath_[maxPath] = {};
};

}  // namespace rdbopen

#endif
