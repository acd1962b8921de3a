//  What ends the waits of a worker: the closed bit of its handle, and an eventfd.
//
//      closeHandle   sets the bit, wake() ----> waitForWake, waitForDescriptor and pause end; closed() is true
//      Worker::post                wake() ----> waitForWake and waitForDescriptor end; closed() is false
//
//  The bit is part of the word in which the handle table keeps the state of the handle, so one compare-and-swap checks the
//  handle's generation and sets the bit. The word is a member here, because g++ 12 fills an array of static objects that refer
//  to their own members with zeros. The eventfd is made at the first use and kept as long as the process lives, so a late
//  wake-up never reaches a descriptor that was opened for something else.
//
//  Threads: any for closed and wake, which are async-signal-safe; the worker's own for the waits.
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

    //  The word of the handle. The handle table changes it; closed() reads closedBit of it.
    static constexpr std::uint64_t closedBit = 2;
    std::atomic<std::uint64_t> state{0};

    //  Makes the eventfd unless there is one. Fails when no descriptor is available.
    Status prepare();

    //  True as soon as rdb_disconnect or rdb_destory was called. Never turns back for the same worker.
    bool closed() const noexcept { return (state.load(std::memory_order_acquire) & closedBit) != 0; }

    //  Ends a wait of the worker, now or when it begins. Async-signal-safe; errno is kept.
    void wake() const noexcept;

    //  Takes a wake-up that no wait has taken yet.
    void takeWake() const noexcept;

    //  Waits for wake, for descriptor to have something to read (-1 for none), or for the time to run out; without a
    //  limit when timeout is negative.
    enum class WakeReason { wake, descriptor, timeout };
    WakeReason waitForWake(std::chrono::milliseconds timeout, int descriptor = -1) const noexcept;

    //  Waits until descriptor is ready for events, as Waiter::wait has it. Returns nothing when wake or a signal ended the
    //  wait.
    std::optional<Waiter::Result> waitForDescriptor(int descriptor, short events,
                                                    std::chrono::milliseconds until) const noexcept;

    //  Waits for the whole time, or until the handle is closed.
    void pause(std::chrono::milliseconds time) const noexcept;

private:
    std::atomic<int> wakefd_{-1};
};

}  // namespace rdbopen

#endif
