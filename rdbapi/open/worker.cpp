#include "worker.h"

#include "backoff.h"
#include "clock.h"
#include "report.h"

#include <csignal>
#include <pthread.h>

namespace rdbopen {

namespace {

//  The worker on whose thread the code runs; null on every other thread.
thread_local const Worker* runningWorker = nullptr;

//  Back ends use containers, which throw when memory is short; that counts as their failure.
template <class Action>
Outcome guarded(Action action) noexcept {
    try {
        return action();
    } catch (...) {
        return {errorBackendFailed, "out of memory"};  // short enough for no allocation
    }
}

}  // namespace

Worker::Worker(HandleSlot& slot) : slot_(slot), random_(static_cast<std::uint32_t>(wallNow() % 1000000007)) {}

int Worker::setNotify(RdbMessageNotify notify, void* user) {
    const std::lock_guard lock(mutex_);
    if (started_)
        return errorAlreadyConnecting;
    if (slot_.closed())
        return errorClosed;
    notify_ = notify;
    user_ = user;
    return errorNone;
}

int Worker::start(std::unique_ptr<Backend> backend) {
    const std::lock_guard lock(mutex_);
    if (started_)
        return errorAlreadyConnecting;
    if (!slot_.beginWorker())
        return errorClosed;
    backend_ = std::move(backend);
    started_ = startThread();
    if (started_)
        return errorNone;
    backend_.reset();
    slot_.endWorker();
    return errorNoResources;
}

//  The thread inherits a mask that blocks everything, so that the process's handlers run on threads of the process.
bool Worker::startThread() {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0)
        return false;
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread{};
    const int failed = pthread_create(&thread, &attributes, threadMain, this);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attributes);
    return failed == 0;
}

int Worker::post(Backend::Service service, std::shared_ptr<Call> call) {
    {
        const std::lock_guard lock(mutex_);
        if (slot_.closed())
            return errorClosed;
        if (started_ && !backend_->serves(service))
            return errorNotSupported;
        if (!accepting_)
            return errorNotConnected;
        if (queue_.size() >= queueCapacity)
            return errorBusy;
        queue_.push_back(std::move(call));
    }
    slot_.wake();
    return errorNone;
}

int Worker::execute(const std::shared_ptr<WaitingCall>& call) {
    if (runningWorker == this)
        return errorInCallback;
    const int refused = post(Backend::Service::tags, call);
    return refused != errorNone ? refused : call->wait();
}

void* Worker::threadMain(void* self) {
    auto* worker = static_cast<Worker*>(self);
    runningWorker = worker;
    HandleSlot& slot = worker->slot_;
    worker->run();
    slot.endWorker();
    return nullptr;
}

void Worker::run() noexcept {
    while (!slot_.closed()) {
        const Outcome end = guarded([this] { return session(); });
        setAccepting(false);
        refuseWaiting();
        backend_->close();
        if (connected_)
            tell(RDB_EVENT_DISCONNECTED);
        connected_ = false;
        if (slot_.closed())
            return;
        noteFailure(end);
        slot_.pause(backoffDelay(failures_, static_cast<std::uint32_t>(random_())));
    }
}

//  Opens the back end and serves until it fails or the handle is closed.
Outcome Worker::session() {
    Outcome opened = backend_->open();
    if (opened.code != errorNone)
        return opened;
    connected_ = true;
    setAccepting(true);
    tell(RDB_EVENT_CONNECTED);
    while (const std::shared_ptr<Call> call = nextCall()) {
        Outcome outcome = serve(*call);
        if (outcome.code == errorBackendFailed)
            return outcome;
        if (outcome.code == errorNone)
            noteSuccess();
    }
    return {errorClosed, {}};
}

Outcome Worker::serve(Call& call) {
    if (call.abandoned())
        return {errorTimedOut, {}};
    Outcome outcome = guarded([&] { return call.run(*backend_); });
    call.complete(outcome.code, slot_.closed());
    return outcome;
}

//  Waits for a call. Returns null when the handle is closed.
std::shared_ptr<Call> Worker::nextCall() {
    for (;;) {
        {
            const std::lock_guard lock(mutex_);
            if (slot_.closed())
                return nullptr;
            if (!queue_.empty()) {
                std::shared_ptr<Call> call = std::move(queue_.front());
                queue_.pop_front();
                return call;
            }
        }
        slot_.waitForWake(std::chrono::milliseconds(-1));
    }
}

void Worker::setAccepting(bool accepting) {
    const std::lock_guard lock(mutex_);
    accepting_ = accepting;
}

void Worker::refuseWaiting() noexcept {
    std::deque<std::shared_ptr<Call>> waiting;
    {
        const std::lock_guard lock(mutex_);
        waiting.swap(queue_);
    }
    const int code = slot_.closed() ? errorClosed : errorNotConnected;
    for (const auto& call : waiting) {
        guarded([&] {
            call->refuse(*backend_, code);
            return Outcome{};
        });
        call->complete(code, slot_.closed());
    }
}

void Worker::tell(std::int32_t event) noexcept {
    if (notify_ != nullptr && !slot_.closed())
        notify_(event, 0, user_);
}

void Worker::noteFailure(const Outcome& failure) noexcept {
    ++failures_;
    if (failure.reason == lastReason_)
        return;
    guarded([&] {
        reportFailure(backend_->label(), failure.reason);
        lastReason_ = failure.reason;
        return Outcome{};
    });
}

void Worker::noteSuccess() noexcept {
    failures_ = 0;
    if (lastReason_.empty())
        return;
    guarded([&] {
        reportRecovery(backend_->label(), "works again");
        lastReason_.clear();
        return Outcome{};
    });
}

}  // namespace rdbopen
