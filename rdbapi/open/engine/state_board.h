//  The state of all connections of this process: each worker passes the lines of its own server, and the board writes
//  them together to the state file (state_file.h).
//
//      worker 1 --publish--> | head     | --> StateFile::write    format, version, pid, boot, start, time of writing
//      worker 2 --publish--> | part 1   |
//                            | part 2   |
//                            | end      |                         a file without this line is incomplete
//
//  No worker waits for a write of another one: if a write is in progress, a worker only stores its lines, and the
//  writing worker writes the file again. If memory is exhausted, a write is skipped.
//
//  Threads: any. A part belongs to one worker's thread.
#ifndef RDBAPI_OPEN_ENGINE_STATE_BOARD_H
#define RDBAPI_OPEN_ENGINE_STATE_BOARD_H

#include "engine/clock.h"
#include "engine/state_file.h"

#include <chrono>
#include <string>

namespace rdbopen {

//  The state file of this process. It has no destructor, because workers may run during exit.
extern constinit StateFile stateFile;

//  While only the time of its last success changes, a worker lets at least this time pass between two of its writes. It
//  is less than the default interval of 60 s between two checks. So, with this interval, each success of a check is
//  written.
inline constexpr std::int64_t stateWriteTime = 50000;  // ms

//  The data in the first lines of the file.
struct StateHead {
    Moment started;
    Moment written;
    std::string boot;  // identifier of the boot; "-" if unknown
    int pid;
};

//  Returns the whole text of the file. parts: the lines of the servers.
std::string stateFileText(const StateHead& head, std::string_view parts);

class StatePart {
public:
    StatePart() = default;
    StatePart(const StatePart&) = delete;
    StatePart& operator=(const StatePart&) = delete;

    //  Sets the lines of this server and writes the file.
    void publish(std::string text) noexcept;

    //  Removes the lines, and writes the file if other connections are open. The destructor only removes the lines.
    void withdraw() noexcept;
    ~StatePart();

private:
    friend class StateBoard;
    std::string text_;
    StatePart* next_ = nullptr;
    bool listed_ = false;
};

}  // namespace rdbopen

#endif
