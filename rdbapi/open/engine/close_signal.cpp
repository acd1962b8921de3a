#include "engine/close_signal.h"

#include "engine/clock.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace rdbopen {

namespace {

//  Pause after a failed poll, which fails mainly for lack of memory. Without it the callers' loops would use all CPU
//  time.
constexpr std::chrono::milliseconds failedPollPause{1000};

}  // namespace

Status CloseSignal::prepare() {
    if (wakefd_.load() < 0)
        wakefd_.store(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return wakefd_.load() < 0 ? systemFailure(errno) : Status{};
}

void CloseSignal::wake() const noexcept {
    const int saved = errno;
    const std::uint64_t one = 1;
    //  write fails only when the counter of the eventfd is at its maximum; then a wake-up is already pending.
    [[maybe_unused]] const auto written = write(wakefd_.load(), &one, sizeof one);
    errno = saved;
}

CloseSignal::WakeReason CloseSignal::waitForWake(std::chrono::milliseconds timeout, int descriptor) const noexcept {
    pollfd descriptors[]{{wakefd_.load(), POLLIN, 0}, {descriptor, POLLIN, 0}};
    const int ready = poll(descriptors, descriptor < 0 ? 1 : 2, static_cast<int>(timeout.count()));
    if (ready == 0)
        return WakeReason::timeout;
    if (ready < 0 && errno != EINTR)
        sleepFor(failedPollPause);
    const bool woken = ready < 0 || descriptors[0].revents != 0;
    if (woken)
        takeWake();
    return woken ? WakeReason::wake : WakeReason::descriptor;
}

std::optional<Waiter::Result> CloseSignal::waitForDescriptor(int descriptor, short events,
                                                             std::chrono::milliseconds until) const noexcept {
    if (closed())
        return Waiter::Result::closed;
    const auto left = std::max(until - monotonicNow(), std::chrono::milliseconds(0));
    pollfd descriptors[]{{descriptor, events, 0}, {wakefd_.load(), POLLIN, 0}};
    const int ready = poll(descriptors, 2, static_cast<int>(left.count()));
    if (ready < 0 && errno != EINTR)
        return Waiter::Result::failed;
    if (ready == 0)
        return Waiter::Result::timedOut;
    if (ready > 0 && descriptors[0].revents != 0)
        return Waiter::Result::ready;
    if (ready > 0)
        takeWake();
    return std::nullopt;
}

//  A wake-up carries no information: after it, the worker checks the flags and the queue before its next wait.
void CloseSignal::takeWake() const noexcept {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto taken = read(wakefd_.load(), &count, sizeof count);
}

void CloseSignal::pause(std::chrono::milliseconds time) const noexcept {
    const auto until = monotonicNow() + time;
    for (auto left = time; left.count() > 0 && !closed(); left = until - monotonicNow())
        if (waitForWake(left) == WakeReason::timeout)
            return;
}

}  // namespace rdbopen
