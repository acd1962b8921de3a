//  The handles: a table of fixed size. Each slot has one state word, which is changed by atomic operations only.
//
//      handle   | 0 | generation: 27 bits | index: 4 bits |
//      state    | generation: 32 bits | pins: 16 bits | flags: 16 bits |
//
//      vacant --rdb_create--> in use --closeHandle--> closed --releaseHandle--> released --rdb_create--> in use ...
//                                |                                                  ^   (reused: generation + 1)
//                                +---------------------releaseHandle----------------+
//
//  A released slot is reused only after its worker has ended and no call has it pinned, so nothing is deleted that a
//  call or a worker still uses. The worker closes the back end when it ends; the rdb_create that reuses the slot
//  deletes the Worker object.
//
//  Each slot has one CloseSignal (close_signal.h), which notifies its worker that the handle is closed.
//
//  Threads: any. closeHandle and releaseHandle are async-signal-safe: they use only atomics, write(2), getpid(2) and
//  unlink(2), which removes the state file when the last connection is closed.
#ifndef RDBAPI_OPEN_ENGINE_HANDLE_TABLE_H
#define RDBAPI_OPEN_ENGINE_HANDLE_TABLE_H

#include "engine/close_signal.h"
#include "engine/worker.h"

#include <cstdint>

namespace rdbopen {

inline constexpr int handleCapacity = 16;

class HandleSlot final : public WorkerOwner {
public:
    constexpr HandleSlot() = default;

    bool beginWorker() noexcept override;
    void endWorker() noexcept override;

private:
    friend int createHandle();
    friend int closeHandle(int handle) noexcept;
    friend int releaseHandle(int handle) noexcept;
    friend class PinnedHandle;

    Result<int> claim(int index);
    bool reusable() const noexcept;
    bool released() const noexcept;
    bool setFlags(std::uint32_t generation, std::uint64_t flags) noexcept;

    CloseSignal signal_;        // contains the state word
    Worker* worker_ = nullptr;  // owned; null while vacant
};

//  Returns a new handle, or -1 if no slot can be used, memory is exhausted, or no file descriptor is available. If all
//  slots are occupied, but some handles are released, waits at most callLimit until one of their slots can be reused.
int createHandle();

//  Implement rdb_disconnect and rdb_destory. Return errorNone or errorBadHandle.
int closeHandle(int handle) noexcept;
int releaseHandle(int handle) noexcept;

//  Pins the slot of a handle, so that its Worker object is not deleted during a call.
class PinnedHandle {
public:
    explicit PinnedHandle(int handle) noexcept;
    PinnedHandle(const PinnedHandle&) = delete;
    PinnedHandle& operator=(const PinnedHandle&) = delete;
    ~PinnedHandle();

    //  Returns null for a bad handle, and if the slot has the maximum number of pins.
    Worker* worker() const noexcept { return slot_ == nullptr ? nullptr : slot_->worker_; }

private:
    HandleSlot* slot_ = nullptr;
};

}  // namespace rdbopen

#endif
