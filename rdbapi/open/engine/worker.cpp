#include "engine/worker.h"

#include "engine/clock.h"

#include <algorithm>
#include <csignal>
#include <malloc.h>
#include <pthread.h>
#include <utility>

namespace rdbopen {

namespace {

//  The worker on whose thread the code runs; null on every other thread.
thread_local const Worker* runningWorker = nullptr;

//  The reason when nobody was left to take the answer to a request for a tag.
constexpr char tagRequestTimedOut[] = "a request for a tag was not answered within 3 s";

//  True for the ways in which a request for a tag ends without an answer that its caller can use.
bool failed(int code) {
    return code == errorBackendFailed || code == errorServerRefused || code == errorTimedOut;
}

//  Back ends use containers, which throw when memory is short; that counts as their failure.
template <class Action>
Status guarded(Action action) noexcept {
    try {
        return action();
    } catch (...) {
        return {errorBackendFailed, "out of memory"};  // short enough for no allocation
    }
}

//  The same for work without a result of its own: without memory it is left undone.
template <class Action>
void attempt(Action action) noexcept {
    try {
        action();
    } catch (...) {
    }
}

}  // namespace

Worker::Worker(const CloseSignal& signal, WorkerOwner& owner)
    : signal_(signal), owner_(owner), waiter_(*this), schedule_(static_cast<std::uint32_t>(wallNow() % 1000000007)) {}

int Worker::setNotify(RdbMessageNotify notify, void* user) {
    const std::lock_guard lock(mutex_);
    if (started_)
        return errorAlreadyConnecting;
    if (signal_.closed())
        return errorClosed;
    notify_ = notify;
    user_ = user;
    return errorNone;
}

int Worker::start(std::unique_ptr<Backend> backend) {
    std::string label = backend->label();  // here, where a lack of memory is the caller's failure
    const std::lock_guard lock(mutex_);
    if (started_)
        return errorAlreadyConnecting;
    if (!owner_.beginWorker())
        return errorClosed;
    backend_ = std::move(backend);
    label_ = std::move(label);
    started_ = startThread();
    if (started_)
        return errorNone;
    backend_.reset();
    owner_.endWorker();
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

int Worker::post(std::shared_ptr<Call> call) {
    {
        const std::lock_guard lock(mutex_);
        if (signal_.closed())
            return errorClosed;
        if (started_ && !call->isServedBy(*backend_))
            return errorNotSupported;  // the only such check: no call reaches a back end without its interface
        if (!accepting_)
            return errorNotConnected;
        if (queue_.size() >= queueCapacity)
            return errorBusy;
        queue_.push_back(std::move(call));
    }
    signal_.wake();
    return errorNone;
}

int Worker::execute(const std::shared_ptr<WaitingCall>& call) {
    if (runningWorker == this)
        return errorInCallback;
    if (const int refused = post(call); refused != errorNone)
        return refused;
    const int code = call->wait();
    if (code == errorTimedOut) {
        signal_.wake();  // so that the worker notices it in the middle of an exchange
        if (call->required())
            reportLoss();
    }
    return code;
}

void* Worker::threadMain(void* self) {
    auto* worker = static_cast<Worker*>(self);
    runningWorker = worker;
    WorkerOwner& owner = worker->owner_;
    worker->run();
    owner.endWorker();
    return nullptr;
}

//  In this order: no call is taken any more and those in the queue get their answer, then the loss is reported, so that
//  no answer follows the event; close comes last, because it may take long: SQLite writes its log into the file. A
//  session that the user of the handle ended is no failure and is not reported.
void Worker::run() noexcept {
    while (!signal_.closed()) {
        const Status end = guarded([this] { return session(); });
        setAccepting(false);
        refuseWaiting();
        reportLoss();
        backend_->close();
        if (signal_.closed())  // which ends every exchange and is no failure
            return;
        failures_.fail(label_, end.reason);
        signal_.pause(schedule_.lost(monotonicNow()));
    }
}

//  Opens the back end and serves until it fails or the handle is closed.
Status Worker::session() {
    if (Status failed = openAndRetry(); !failed.ok())
        return failed;
    schedule_.connected(monotonicNow());
    setAccepting(true);
    reportConnection();
    for (;;) {
        //  The next work may be minutes away. The service sets the limit from which free memory is released to 1 MB,
        //  and free memory between blocks in use is never released by free(3).
        malloc_trim(0);
        std::shared_ptr<Call> call;
        Status status;
        switch (nextWork(call)) {
        case Work::closed:
            return {errorClosed, {}};
        case Work::call:
            status = serve(*call);
            if (status.ok())
                badRequests_.clear();
            break;
        case Work::retry:
            status = retryPending();
            break;
        case Work::check:
            status = checkAndRetry();
            break;
        }
        if (status.ok() && checkRefused_)
            status = checkAndRetry();
        schedule_.exchanged(monotonicNow(), backend_->checkInterval());
        if (status.code == errorBackendFailed)
            return status;
        evaluate(status);
    }
}

//  Returns errorNone when the back end is open and no request for a tag is pending. Other pending requests may be refused.
//  Recovery is reported only after a request has succeeded: a server that opens and then fails would otherwise log failure
//  and recovery each time.
Status Worker::openAndRetry() {
    Status status = backend_->open(waiter_);
    if (!status.ok())
        return status;
    const bool hadPending = desired_.pending();
    status = retryTags();
    if (!status.ok())
        return status;
    status = checkAndRetry();
    schedule_.exchanged(monotonicNow(), backend_->checkInterval());
    if (status.code == errorBackendFailed)
        return status;
    if (hadPending || !status.ok())
        evaluate(status);
    return {};
}

//  Returns errorBackendFailed for all that ends the session. A failed request for a tag ends it even when the server
//  answers: the service publishes nothing, to DNS neither, while a connected database does not take the tag, and only
//  the event 60003 lets it go on without the database. A put that fails is retried in the open session: the service has
//  counted it as sent.
Status Worker::serve(Call& call) {
    Status status{errorTimedOut, {}};
    if (!call.abandoned()) {
        running_ = &call;
        status = guarded([&] { return call.run(*backend_); });
        running_ = nullptr;
        call.finish(status.code, signal_.closed());
        if (call.required() && call.abandoned() && !failed(status.code))
            status = {errorTimedOut, {}};
    }
    call.record(desired_, status.code);
    if (call.required() && failed(status.code)) {
        schedule_.tagRequestFailed();
        if (status.code == errorTimedOut)
            status.reason = tagRequestTimedOut;
        status.code = errorBackendFailed;
    }
    return status;
}

//  Each request gets the time that a caller would wait for it: one that takes longer would fail when it is made by the
//  user of the handle.
Status Worker::retryTags() {
    Status status;
    while (status.ok() && desired_.tagPending()) {
        waitLimit_ = monotonicNow() + callLimit;
        status = guarded([this] { return desired_.retryTag(*backend_); });
        waitLimit_ = std::chrono::milliseconds::max();
    }
    return status;
}

Status Worker::retryPending() {
    return guarded([this] { return desired_.retry(*backend_); });
}

//  Sets checkRefused_. The success of another request does not clear what a check was refused for: a user with the
//  right to write and without that to read would otherwise be reported as failing and working in turn, at every put.
Status Worker::checkAndRetry() {
    Status status = check();
    if (status.code == errorPreempted)
        return status;
    checkRefused_ = status.code == errorServerRefused;
    return status.ok() && desired_.pending() ? retryPending() : status;
}

//  The check alone. A call that was posted meanwhile may have cut it off.
Status Worker::check() {
    checking_ = true;
    checkPreempted_ = false;
    Status status = guarded([this] { return backend_->probe(); });
    if (status.ok())
        status = guarded([this] { return desired_.check(*backend_); });
    checking_ = false;
    return checkPreempted_ ? Status{errorPreempted, {}} : status;
}

//  Returns whether the next wait of the back end has to end for a call. Then all that follow in the same check end, too.
bool Worker::callPreemptsCheck() noexcept {
    if (!checking_ || !backend_->checksArePreemptible())
        return false;
    const std::lock_guard lock(mutex_);
    checkPreempted_ = checkPreempted_ || !queue_.empty();
    return checkPreempted_;
}

//  Waits for something to do.
Worker::Work Worker::nextWork(std::shared_ptr<Call>& call) {
    for (;;) {
        if (signal_.closed())
            return Work::closed;
        call = takeCall();
        if (call != nullptr)
            return Work::call;
        Work due = Work::check;
        const auto left = untilDue(due);
        if (left.count() == 0)
            return due;
        switch (signal_.waitForWake(left, backend_->watchedDescriptor())) {
        case CloseSignal::WakeReason::wake:
            break;
        case CloseSignal::WakeReason::descriptor:
            return Work::check;
        case CloseSignal::WakeReason::timeout:
            return due;
        }
    }
}

//  Returns null when no call is queued.
std::shared_ptr<Call> Worker::takeCall() {
    const std::lock_guard lock(mutex_);
    if (queue_.empty())
        return nullptr;
    std::shared_ptr<Call> call = std::move(queue_.front());
    queue_.pop_front();
    return call;
}

//  Stores what is due next. Returns in how many milliseconds, or a negative time when nothing ever is.
std::chrono::milliseconds Worker::untilDue(Work& due) const {
    if (desired_.pending()) {
        due = Work::retry;
        return schedule_.untilRetry(monotonicNow());
    }
    due = Work::check;
    if (backend_->checkInterval().count() == 0)
        return std::chrono::milliseconds(-1);
    return schedule_.untilCheck(monotonicNow());
}

//  Called by the worker's thread only.
bool Worker::requiredCallAbandoned() noexcept {
    const auto gaveUp = [](Call& call) { return call.required() && call.abandoned(); };
    if (running_ != nullptr && gaveUp(*running_))
        return true;
    const std::lock_guard lock(mutex_);
    return std::any_of(queue_.begin(), queue_.end(), [&](const auto& call) { return gaveUp(*call); });
}

Waiter::Result Worker::SlotWaiter::wait(int descriptor, short events, std::chrono::milliseconds until) const noexcept {
    until = std::min(until, worker_.waitLimit_);
    std::optional<Result> result;
    while (!result) {
        if (worker_.requiredCallAbandoned())
            result = Result::timedOut;
        else if (worker_.callPreemptsCheck())
            result = Result::callWaits;
        else
            result = worker_.signal_.waitForDescriptor(descriptor, events, until);
    }
    return *result;
}

void Worker::setAccepting(bool accepting) {
    const std::lock_guard lock(mutex_);
    accepting_ = accepting;
}

//  Needs no memory, so that its callers get their answer also when there is none.
void Worker::refuseWaiting() noexcept {
    const int code = signal_.closed() ? errorClosed : errorNotConnected;
    while (const std::shared_ptr<Call> call = takeCall()) {
        if (call->required())
            schedule_.tagRequestFailed();
        attempt([&] {
            call->refuse(*backend_, code);
            call->record(desired_, code);
        });
        call->finish(code, signal_.closed());
    }
}

void Worker::reportConnection() noexcept {
    const std::lock_guard lock(eventMutex_);
    connectionReported_ = true;
    sendEvent(RDB_EVENT_CONNECTED);
}

//  On the worker's thread, or on that of a caller whose required call had no answer in time while the worker cannot go on,
//  such as in a system call on a disk that hangs.
void Worker::reportLoss() noexcept {
    setAccepting(false);
    const std::lock_guard lock(eventMutex_);
    if (std::exchange(connectionReported_, false))
        sendEvent(RDB_EVENT_DISCONNECTED);
}

void Worker::sendEvent(std::int32_t event) noexcept {
    if (notify_ != nullptr && !signal_.closed())
        notify_(event, 0, user_);
}

//  Reports how a piece of work ended with the back end still open, and sets when what is pending is due. A bad request
//  is reported apart from failures: it says nothing about the server, and the server's recovery nothing about it.
//  Recovery needs a success with nothing pending, so that a server that takes one request and refuses another is not
//  reported as working.
void Worker::evaluate(const Status& status) noexcept {
    if (status.code == errorPreempted)
        return;
    if (status.code == errorServerRefused)
        failures_.fail(label_, status.reason);
    if (status.code == errorBadRequest)
        badRequests_.fail(label_, status.reason);
    if (desired_.pending()) {
        if (!status.ok())
            schedule_.refused(monotonicNow());
    } else if (status.ok()) {
        schedule_.succeeded();
        failures_.recover(label_);
    }
}

}  // namespace rdbopen
