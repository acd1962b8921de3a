//  The handles: a fixed table of slots, each one word of state that is changed by compare-and-swap only.
//
//      handle   | 0 | generation: 27 bits | index: 4 bits |
//      state    | generation: 32 bits | pins: 16 bits | flags: 16 bits |
//
//      vacant --rdb_create--> in use --closeHandle--> closed --releaseHandle--> released --rdb_create--> vacant ...
//                                |                                                  ^   (reused: generation + 1)
//                                +---------------------releaseHandle----------------+
//
//  A released slot is reused only when no call has it pinned and its worker has ended, so nothing that a call or a worker
//  still uses is deleted. The rdb_create that reuses a slot frees its memory; the worker frees its thread and the back
//  end's descriptors as soon as it ends.
//
//  Each slot has one close signal (close_signal.h), through which its worker learns that it is closed.
//
//  Threads: any. closeHandle and releaseHandle are async-signal-safe: atomics and write(2), nothing else.
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

    CloseSignal signal_;        // with the state
    Worker* worker_ = nullptr;  // owned; null while vacant
};

//  Returns a new handle, or -1 when all are in use or there is no memory or descriptor left. When the table is full of
//  handles that were released and whose workers have not ended yet, waits for one, at most callLimit.
int createHandle();

//  rdb_disconnect and rdb_destory. Return errorNone or errorBadHandle.
int closeHandle(int handle) noexcept;
int releaseHandle(int handle) noexcept;

//  Keeps the worker of a handle in being for the time of one call.
class PinnedHandle {
public:
    explicit PinnedHandle(int handle) noexcept;
    PinnedHandle(const PinnedHandle&) = delete;
    PinnedHandle& operator=(const PinnedHandle&) = delete;
    ~PinnedHandle();

    //  Null for a bad handle.
    Worker* worker() const noexcept { return slot_ == nullptr ? nullptr : slot_->worker_; }

private:
    HandleSlot* slot_ = nullptr;
};

}  // namespace rdbopen

#endif
