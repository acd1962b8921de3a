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
//  A reader that finds no write lock on the file knows that its writer has ended without removing it. The lock of the
//  file itself proves this for exactly the file that was read. It cannot be the lock that selects the writer, because
//  other users may open the file: a read lock of theirs must not prevent a process from becoming the writer. All locks
//  belong to an open file description, so a child that keeps these descriptors after fork keeps the locks; the service
//  does not fork after its first connection.
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
    //  If its path is too long, nothing is written. Until the first call has returned, write does nothing; no other
    //  call waits for it. Not async-signal-safe.
    void chooseFolder(const char* runtimeDirectory);

    //  Counts the open connections. When the last one is closed, connectionClosed removes the state file; a write at
    //  the same time leaves none.
    void connectionOpened() noexcept { ++open_; }
    void connectionClosed() noexcept;

    //  Replaces the file. Does nothing if no connection is open, the folder does not exist or cannot be written, or
    //  another process is the writer. Requires: chooseFolder was called.
    void write(std::string_view text) noexcept;

private:
    bool lock() noexcept;
    void giveLockToOwner() const noexcept;
    bool replace(std::string_view text) noexcept;
    int createNew(std::string_view text) const noexcept;
    void closeCurrent() noexcept;
    void remove() const noexcept;

    static constexpr std::size_t maxPath = 256;  // bytes; a longer path is no folder of systemd

    std::atomic<int> open_{0};
    std::atomic<bool> chosen_{false};  // chooseFolder was called
    std::atomic<bool> ready_{false};   // the paths are set and constant
    std::atomic<pid_t> writer_{0};     // this process while it is the writer, else 0; after fork that of the parent
    int lockFd_ = -1;
    int currentFd_ = -1;  // of the file FOLDER/state, whose lock it has
    //  Not read before ready_ is true.
    char statePath_[maxPath] = {};
    char newPath_[maxPath] = {};
    char lockPath_[maxPath] = {};
};

}  // namespace rdbopen

#endif
