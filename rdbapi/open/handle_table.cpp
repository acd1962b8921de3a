#include "handle_table.h"

#include "backoff.h"
#include "clock.h"
#include "open_errors.h"
#include "timed_condition.h"
#include "worker.h"

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <new>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace rdbopen {

namespace {

constexpr int indexBits = 4;
static_assert(handleCapacity == 1 << indexBits);
constexpr std::uint32_t generationMask = (1U << (31 - indexBits)) - 1;

constexpr std::uint64_t flagInUse = 1;
constexpr std::uint64_t flagClosed = 2;
constexpr std::uint64_t flagGivenBack = 4;
constexpr std::uint64_t flagWorker = 8;
constexpr std::uint64_t pinUnit = 1U << 16;
constexpr std::uint64_t pinMask = 0xffffU << 16;

static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

constexpr std::uint32_t generationOf(std::uint64_t state) {
    return static_cast<std::uint32_t>(state >> 32);
}

//  All of it is initialised by the compiler and has no destructor: nothing runs at load, nothing at exit.
constinit HandleSlot slots[handleCapacity];
constinit std::mutex createMutex;
constinit TimedCondition slotReleased;

void tellCreators() noexcept {
    const std::lock_guard lock(createMutex);
    slotReleased.notifyAll();
}

HandleSlot* slotOf(int handle) noexcept {
    return handle < 0 ? nullptr : &slots[handle & (handleCapacity - 1)];
}

std::uint32_t generationOfHandle(int handle) noexcept {
    return static_cast<std::uint32_t>(handle) >> indexBits;
}

}  // namespace

bool HandleSlot::closed() const noexcept {
    return (state_.load(std::memory_order_acquire) & flagClosed) != 0;
}

bool HandleSlot::beginWorker() noexcept {
    std::uint64_t state = state_.load();
    do {
        if ((state & flagClosed) != 0)
            return false;
    } while (!state_.compare_exchange_weak(state, state | flagWorker));
    return true;
}

void HandleSlot::endWorker() noexcept {
    state_.fetch_and(~flagWorker);
    tellCreators();
}

void HandleSlot::wake() const noexcept {
    const int saved = errno;
    const std::uint64_t one = 1;
    //  Fails only when the counter is at its top, and then the worker is woken already.
    [[maybe_unused]] const auto written = write(wakefd_.load(), &one, sizeof one);
    errno = saved;
}

HandleSlot::Awoken HandleSlot::waitForWake(std::chrono::milliseconds timeout, int descriptor) const noexcept {
    pollfd descriptors[]{{wakefd_.load(), POLLIN, 0}, {descriptor, POLLIN, 0}};
    const int ready = poll(descriptors, descriptor < 0 ? 1 : 2, static_cast<int>(timeout.count()));
    if (ready == 0)
        return Awoken::byTime;
    if (ready < 0 && errno != EINTR)
        sleepFor(backoffLeast);  // no memory: whoever waits here would spin
    const bool woken = ready < 0 || descriptors[0].revents != 0;
    if (woken)
        takeWake();
    return woken ? Awoken::byWake : Awoken::byDescriptor;
}

std::optional<Waiter::Result> HandleSlot::waitForDescriptor(int descriptor, short events,
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

//  The wake-up itself means nothing: whoever takes it looks at the flags and the queue again before the next wait.
void HandleSlot::takeWake() const noexcept {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto taken = read(wakefd_.load(), &count, sizeof count);
}

void HandleSlot::pause(std::chrono::milliseconds time) const noexcept {
    const auto until = monotonicNow() + time;
    for (auto left = time; left.count() > 0 && !closed(); left = until - monotonicNow())
        if (waitForWake(left) == Awoken::byTime)
            return;
}

//  Requires: createMutex is held, and the slot is vacant or reusable.
bool HandleSlot::claim(int index, int& handle) {
    if (wakefd_.load() < 0) {
        const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (fd < 0)
            return false;
        wakefd_.store(fd);
    }
    Worker* fresh = new (std::nothrow) Worker(*this);
    if (fresh == nullptr)
        return false;
    delete worker_;
    worker_ = fresh;
    takeWake();  // left over by the slot's last user; it would cut the new worker's first pause in two
    const std::uint32_t generation = (generationOf(state_.load()) + 1) & generationMask;
    state_.store(std::uint64_t{generation} << 32 | flagInUse);
    handle = static_cast<int>(generation << indexBits) | index;
    return true;
}

bool HandleSlot::reusable() const noexcept {
    const std::uint64_t state = state_.load();
    return (state & flagInUse) == 0 || ((state & flagGivenBack) != 0 && (state & (flagWorker | pinMask)) == 0);
}

bool HandleSlot::windingDown() const noexcept {
    return (state_.load() & flagGivenBack) != 0;
}

bool HandleSlot::setFlags(std::uint32_t generation, std::uint64_t flags) noexcept {
    std::uint64_t state = state_.load();
    do {
        if (generationOf(state) != generation || (state & flagInUse) == 0 || (state & flagGivenBack) != 0)
            return false;
    } while (!state_.compare_exchange_weak(state, state | flags));
    wake();
    return true;
}

int createHandle() {
    const auto until = monotonicNow() + callLimit;
    std::unique_lock lock(createMutex);
    for (;;) {
        bool mayComeFree = false;
        for (int index = 0; index < handleCapacity; ++index) {
            int handle = -1;
            if (slots[index].reusable())
                return slots[index].claim(index, handle) ? handle : -1;
            mayComeFree |= slots[index].windingDown();
        }
        if (!mayComeFree || !slotReleased.waitUntil(lock, until))
            return -1;
    }
}

int closeHandle(int handle) noexcept {
    HandleSlot* slot = slotOf(handle);
    return slot != nullptr && slot->setFlags(generationOfHandle(handle), flagClosed) ? errorNone : errorBadHandle;
}

int giveBackHandle(int handle) noexcept {
    HandleSlot* slot = slotOf(handle);
    return slot != nullptr && slot->setFlags(generationOfHandle(handle), flagClosed | flagGivenBack) ? errorNone
                                                                                                     : errorBadHandle;
}

PinnedHandle::PinnedHandle(int handle) noexcept {
    HandleSlot* slot = slotOf(handle);
    if (slot == nullptr)
        return;
    std::uint64_t state = slot->state_.load();
    do {
        if (generationOf(state) != generationOfHandle(handle) || (state & flagInUse) == 0 ||
            (state & flagGivenBack) != 0 || (state & pinMask) == pinMask)
            return;
    } while (!slot->state_.compare_exchange_weak(state, state + pinUnit));
    slot_ = slot;
}

PinnedHandle::~PinnedHandle() {
    if (slot_ != nullptr && (slot_->state_.fetch_sub(pinUnit) & flagGivenBack) != 0)
        tellCreators();
}

}  // namespace rdbopen
