#include "engine/handle_table.h"

#include "engine/clock.h"
#include "engine/errors.h"
#include "engine/state_board.h"
#include "engine/timed_condition.h"

#include <mutex>
#include <new>
#include <type_traits>

namespace rdbopen {

namespace {

constexpr int indexBits = 4;
static_assert(handleCapacity == 1 << indexBits);
constexpr std::uint32_t generationMask = (1U << (31 - indexBits)) - 1;

constexpr std::uint64_t flagInUse = 1;
constexpr std::uint64_t flagClosed = CloseSignal::closedBit;
constexpr std::uint64_t flagReleased = 4;
constexpr std::uint64_t flagWorker = 8;
constexpr std::uint64_t pinUnit = 1U << 16;
constexpr std::uint64_t pinMask = 0xffffU << 16;

static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

constexpr std::uint32_t generationOf(std::uint64_t state) {
    return static_cast<std::uint32_t>(state >> 32);
}

//  Returns whether the handle has a worker and is not closed. One atomic operation ends this state, so StateFile counts
//  the end of a connection exactly once.
constexpr bool isOpen(std::uint64_t state) {
    return (state & (flagWorker | flagClosed)) == flagWorker;
}

//  These objects are initialised at compile time and have no destructor, so no code runs at load or at exit.
constinit HandleSlot slots[handleCapacity];
static_assert(std::is_trivially_destructible_v<HandleSlot>);
constinit std::mutex createMutex;
constinit TimedCondition slotReusable;

void notifyCreators() noexcept {
    const std::lock_guard lock(createMutex);
    slotReusable.notifyAll();
}

HandleSlot* slotOf(int handle) noexcept {
    return handle < 0 ? nullptr : &slots[handle & (handleCapacity - 1)];
}

std::uint32_t generationOfHandle(int handle) noexcept {
    return static_cast<std::uint32_t>(handle) >> indexBits;
}

}  // namespace

bool HandleSlot::beginWorker() noexcept {
    std::uint64_t state = signal_.state.load();
    do {
        if ((state & flagClosed) != 0)
            return false;
    } while (!signal_.state.compare_exchange_weak(state, state | flagWorker));
    stateFile.connectionOpened();
    return true;
}

void HandleSlot::endWorker() noexcept {
    if (isOpen(signal_.state.fetch_and(~flagWorker)))  // the thread could not be started
        stateFile.connectionClosed();
    notifyCreators();
}

//  Returns the handle. Requires: createMutex is held, and the slot is vacant or reusable.
Result<int> HandleSlot::claim(int index) {
    if (Status failed = signal_.prepare(); !failed.ok())
        return failed;
    auto* const worker = new (std::nothrow) Worker(signal_, *this);
    if (worker == nullptr)
        return Status{errorNoResources, "out of memory"};  // short enough to need no allocation
    delete worker_;
    worker_ = worker;
    signal_.takeWake();  // a wake-up of the slot's previous user would end the new worker's first wait early
    const std::uint32_t generation = (generationOf(signal_.state.load()) + 1) & generationMask;
    signal_.state.store(std::uint64_t{generation} << 32 | flagInUse);
    return static_cast<int>(generation << indexBits) | index;
}

bool HandleSlot::reusable() const noexcept {
    const std::uint64_t state = signal_.state.load();
    return (state & flagInUse) == 0 || ((state & flagReleased) != 0 && (state & (flagWorker | pinMask)) == 0);
}

bool HandleSlot::released() const noexcept {
    return (signal_.state.load() & flagReleased) != 0;
}

bool HandleSlot::setFlags(std::uint32_t generation, std::uint64_t flags) noexcept {
    std::uint64_t state = signal_.state.load();
    do {
        if (generationOf(state) != generation || (state & flagInUse) == 0 || (state & flagReleased) != 0)
            return false;
    } while (!signal_.state.compare_exchange_weak(state, state | flags));
    signal_.wake();
    if (isOpen(state))
        stateFile.connectionClosed();
    return true;
}

int createHandle() {
    const auto until = monotonicNow() + callLimit;
    std::unique_lock lock(createMutex);
    for (;;) {
        bool mayBecomeFree = false;
        for (int index = 0; index < handleCapacity; ++index) {
            if (slots[index].reusable()) {
                const Result<int> handle = slots[index].claim(index);
                return handle.ok() ? *handle : -1;
            }
            mayBecomeFree |= slots[index].released();
        }
        if (!mayBecomeFree || !slotReusable.waitUntil(lock, until))
            return -1;
    }
}

int closeHandle(int handle) noexcept {
    HandleSlot* slot = slotOf(handle);
    return slot != nullptr && slot->setFlags(generationOfHandle(handle), flagClosed) ? errorNone : errorBadHandle;
}

int releaseHandle(int handle) noexcept {
    HandleSlot* slot = slotOf(handle);
    return slot != nullptr && slot->setFlags(generationOfHandle(handle), flagClosed | flagReleased) ? errorNone
                                                                                                    : errorBadHandle;
}

PinnedHandle::PinnedHandle(int handle) noexcept {
    HandleSlot* slot = slotOf(handle);
    if (slot == nullptr)
        return;
    std::uint64_t state = slot->signal_.state.load();
    do {
        if (generationOf(state) != generationOfHandle(handle) || (state & flagInUse) == 0 ||
            (state & flagReleased) != 0 || (state & pinMask) == pinMask)
            return;
    } while (!slot->signal_.state.compare_exchange_weak(state, state + pinUnit));
    slot_ = slot;
}

PinnedHandle::~PinnedHandle() {
    if (slot_ != nullptr && (slot_->signal_.state.fetch_sub(pinUnit) & flagReleased) != 0)
        notifyCreators();
}

}  // namespace rdbopen
