//  Ends the waits of a worker. Contains the closed bit of the worker's handle, and an eventfd.
//
//      closeHandle, releaseHandle:  bit, wake() ----> waitForWake, waitForDescriptor and pause end; closed() is true
//      Worker::post, execute:            wake() ----> waitForWake and waitForDescriptor end; closed() is false
//
//  The bit is part of the atomic word that stores the state of the handle (handle_table.h), so a single
//  compare-and-swap checks the generation of the handle and sets the bit. The word is a member of this class, and not a
//  reference, because g++ 12 wrongly zero-initialises an array of static objects that refer to their own members. The
//  eventfd is created at the first use and never closed, so a late wake-up cannot reach a file descriptor that was
//  reused for another purpose.
//
//  Threads: closed and wake may be called on any thread and are async-signal-safe. The waits are called only on the
//  worker's thread. rdb_create calls prepare and takeWake before this thread starts.
#ifndef RDBAPI_OPEN_ENGINE_CLOSE_SIGNAL_H
#define RDBAPI_OPEN_ENGINE_CLOSE_SIGNAL_H

#include "engine/status.h"
#include "engine/waiter.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>

namespace rdbopen {

class CloseSignal {
public:
    constexpr CloseSignal() = default;
    CloseSignal(const CloseSignal&) = delete;
    CloseSignal& operator=(const CloseSignal&) = delete;

    //  The state word of the handle. The handle table changes it; closed() reads its closedBit.
    static constexpr std::uint64_t closedBit = 2;
    std::atomic<std::uint64_t> state{0};

    //  Creates the eventfd if it does not exist yet. Fails when no file descriptor or memory is available.
    Status prepare();

    //  Returns whether rdb_disconnect or rdb_destory was called. For the same worker, true never becomes false again.
    bool closed() const noexcept { return (state.load(std::memory_order_acquire) & closedBit) != 0; }

    //  Ends the worker's current waitForWake or waitForDescriptor, or else the next one. Ends pause only if the handle
    //  is closed; otherwise pause discards the wake-up. Async-signal-safe; does not change errno.
    void wake() const noexcept;

    //  Discards a wake-up that no wait has consumed.
    void takeWake() const noexcept;

    //  Waits for wake, for input at descriptor (-1: no descriptor), or for the timeout. The wait has no time limit when
    //  timeout is negative. If a signal interrupts poll(2), returns wake; if poll(2) fails, returns wake after a pause.
    enum class WakeReason { wake, descriptor, timeout };
    WakeReason waitForWake(std::chrono::milliseconds timeout, int descriptor = -1) const noexcept;

    //  Waits until descriptor is ready for events, like Waiter::wait. Returns nothing when wake or a signal ended the
    //  wait.
    std::optional<Waiter::Result> waitForDescriptor(int descriptor, short events,
                                                    std::chrono::milliseconds until) const noexcept;

    //  Sleeps for the whole time, or until the handle is closed.
    void pause(std::chrono::milliseconds time) const noexcept;

private:
    std::atomic<int> wakefd_{-1};
};

}  // namespace rdbopen

#endif
