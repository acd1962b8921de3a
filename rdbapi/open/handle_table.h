//  The handles: a fixed table of slots, each one word of state that is changed by compare-and-swap only.
//
//      handle   | 0 | generation: 27 bits | index: 4 bits |
//      state    | generation: 32 bits | pins: 16 bits | flags: 16 bits |
//
//      vacant --rdb_create--> in use --closeHandle--> closed --giveBackHandle--> given back --rdb_create--> vacant ...
//                                |                                                    ^   (reused: generation + 1)
//                                +----------------------giveBackHandle----------------+
//
//  A slot that was given back is reused only when no call has it pinned and its worker has ended, so nothing that a
//  call or a worker still uses goes away beneath it. The memory of a slot is given back by the rdb_create that reuses
//  it; threads and the back end's descriptors are given back by the worker as soon as it ends.
//
//  Each slot has one eventfd, made at its first use and kept as long as the process lives: a late wake-up can then
//  never reach a descriptor that belongs to somebody else by now.
//
//  Threads: any. closeHandle and giveBackHandle are async-signal-safe: atomics and write(2), nothing else.
#ifndef RDBAPI_OPEN_HANDLE_TABLE_H
#define RDBAPI_OPEN_HANDLE_TABLE_H

#include "waiter.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>

namespace rdbopen {

class Worker;

inline constexpr int handleCapacity = 16;

//  What a worker sees of its handle.
class HandleSlot {
public:
    constexpr HandleSlot() = default;

    //  True as soon as rdb_disconnect or rdb_destory was called. Never turns back for the same worker.
    bool closed() const noexcept;

    //  Marks the slot as having a worker. Returns false when it is closed.
    bool beginWorker() noexcept;

    //  Takes the mark away: the worker's last action on anything of its own.
    void endWorker() noexcept;

    //  Ends a wait of the worker, now or when it begins. Async-signal-safe; errno is kept.
    void wake() const noexcept;

    //  Waits for wake, for descriptor to have something to read (-1 for none), or for the time to run out; without a
    //  limit when timeout is negative.
    enum class Awoken { byWake, byDescriptor, byTime };
    Awoken waitForWake(std::chrono::milliseconds timeout, int descriptor = -1) const noexcept;

    //  Waits until descriptor is ready for events, as Waiter::wait has it. Returns nothing when wake or a signal ended the
    //  wait.
    std::optional<Waiter::Result> waitForDescriptor(int descriptor, short events,
                                                    std::chrono::milliseconds until) const noexcept;

    //  Waits for the whole time, or until the slot is closed.
    void pause(std::chrono::milliseconds time) const noexcept;

private:
    friend int createHandle();
    friend int closeHandle(int handle) noexcept;
    friend int giveBackHandle(int handle) noexcept;
    friend class PinnedHandle;

    void takeWake() const noexcept;
    bool claim(int index, int& handle);
    bool reusable() const noexcept;
    bool windingDown() const noexcept;
    bool setFlags(std::uint32_t generation, std::uint64_t flags) noexcept;

    std::atomic<std::uint64_t> state_{0};
    std::atomic<int> wakefd_{-1};
    Worker* worker_ = nullptr;  // owned; null while vacant
};

//  Returns a new handle, or -1 when all are in use or there is no memory or descriptor left. When the table is full of
//  handles that were given back and whose workers have not ended yet, waits for one, at most callLimit.
int createHandle();

//  rdb_disconnect and rdb_destory. Return errorNone or errorBadHandle.
int closeHandle(int handle) noexcept;
int giveBackHandle(int handle) noexcept;

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
