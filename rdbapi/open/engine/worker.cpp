#include "engine/worker.h"

#include "engine/clock.h"

#include <algorithm>
#include <csignal>
#include <malloc.h>
#include <mutex>
#include <pthread.h>
#include <sys/random.h>
#include <utility>

namespace rdbopen {

namespace {

//  The worker that owns the current thread; null on threads of the caller.
thread_local const Worker* runningWorker = nullptr;

//  The reason for ending a connection when the caller of a request for a tag has timed out.
constexpr char tagRequestTimedOut[] = "a request for a tag was not answered within 3 s";

//  Returns whether a request for a tag has ended without an answer that its caller can use.
bool failed(int code) {
    return code == errorBackendFailed || code == errorServerRefused || code == errorTimedOut;
}

//  Returns a number that differs between hosts even if they start at the same time from the same image.
std::uint32_t randomNumber() noexcept {
    auto number = static_cast<std::uint32_t>(wallNow());
    //  getrandom fails only shortly after the start of the system. The number is then the time.
    [[maybe_unused]] const auto filled = getrandom(&number, sizeof number, GRND_NONBLOCK);
    return number;
}

//  Runs action and converts an exception to a failure of the back end: containers throw when memory is exhausted.
template <class Action>
Status guarded(Action action) noexcept {
    try {
        return action();
    } catch (...) {
        return {errorBackendFailed, "out of memory"};  // short enough to need no allocation
    }
}

//  Like guarded, for an action without a result: if memory is exhausted, the rest of the action is skipped.
template <class Action>
void attempt(Action action) noexcept {
    try {
        action();
    } catch (...) {
    }
}

//  Returns free memory to the system. Called before a connected worker waits for its next work, which may be minutes
//  away. free(3) alone does not return all of it: the service lets free(3) keep 1 MB at the top of the heap, and
//  free(3) does not release memory between used blocks.
//
//  In a process that does not use the allocator of the C library (a sanitizer, an allocator by LD_PRELOAD), the first
//  malloc_trim initializes that allocator. glibc 2.36 crashes if two threads do this at once, hence the mutex.
void returnFreeMemory() {
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    malloc_trim(0);
}

}  // namespace

Worker::Worker(const CloseSignal& signal, WorkerOwner& owner)
    : signal_(signal), owner_(owner), waiter_(*this), schedule_(randomNumber()) {}

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
    std::string label = backend->label();  // an exception here reaches the caller, who gets errorNoResources
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

//  The new thread inherits a signal mask that blocks all signals, so the program's signal handlers never run on it.
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
            return errorNotSupported;  // checked only here: later code assumes that the interface exists
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
        signal_.wake();  // so that the worker notices the time-out during an exchange
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

//  After a session the order matters. First new calls are rejected and the queued calls get their answers, then event
//  60003 is sent, so that no answer follows the event. (If a caller of a request for a tag has timed out, its thread
//  may send the event earlier.) close is last because it may take long: SQLite writes its log into the database file.
//  If the user of the handle closed it, the end of the session is not a failure and is not logged.
void Worker::run() noexcept {
    describeState();
    while (!signal_.closed()) {
        const Status end = guarded([this] { return session(); });
        setAccepting(false);
        refuseWaiting();
        reportLoss();
        backend_->close();
        if (signal_.closed())
            break;
        failures_.fail(label_, end.reason);
        const auto pause = schedule_.lost(monotonicNow());
        publishLoss(end, pause);
        signal_.pause(pause);
    }
    statePart_.withdraw();
}

//  Opens the back end and serves calls until the back end or a request for a tag fails, or the handle is closed.
Status Worker::session() {
    if (Status failed = openAndRetry(); !failed.ok())
        return failed;
    schedule_.connected(monotonicNow(), backend_->checkInterval(), randomNumber());
    setAccepting(true);
    state_.connected(momentNow());
    reportConnection();
    for (;;) {
        publishState();
        returnFreeMemory();
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
            state_.retried();
            status = retryPending();
            noteExchange(ServerState::Cause::worker, status);
            break;
        case Work::input:
            status = checkAndRetry();
            noteExchange(ServerState::Cause::worker, status);
            break;
        case Work::check:
            status = dueCheck();
            noteExchange(ServerState::Cause::worker, status);
            break;
        }
        if (status.ok() && checkRefused_) {
            status = checkAndRetry();
            noteExchange(ServerState::Cause::worker, status);
        }
        if (status.code == errorBackendFailed)
            return status;
        evaluate(status);
    }
}

//  Returns errorNone when the back end is open and no request for a tag is pending; other requests may still be
//  pending. Logs recovery only if data was pending and its retry has succeeded. If an open alone counted as recovery, a
//  server that accepts a connection and then fails each request would cause log lines of failure and recovery in turn.
Status Worker::openAndRetry() {
    Status status = backend_->open(waiter_);
    if (!status.ok())
        return status;
    desired_.connectionOpened();
    const bool hadPending = desired_.pending();
    status = retryTags();
    if (!status.ok())
        return status;
    status = !hadPending && refreshAtOpen() ? retryPending() : checkAndRetry();
    if (status.code == errorBackendFailed)
        return status;
    noteExchange(ServerState::Cause::worker, status);
    if (hadPending || !status.ok())
        evaluate(status);
    return {};
}

//  If the connection is to begin with a refresh, marks the data as pending and returns true. Such a refresh takes one
//  exchange for each value, like a check. The user of the handle reacts to event 60001 with repetitions of the data.
//  After the refresh, these need no exchange (takeConfirmed). So, if all hosts return to a server at once, the server
//  gets one write from each host.
bool Worker::refreshAtOpen() noexcept {
    TagBackend* const tags = backend_->tags();
    return tags != nullptr && tags->refreshIsOneExchange() && !checkRefused_ && desired_.refresh();
}

//  Returns errorBackendFailed if the session must end. A failed request for a tag ends the session even if the server
//  has answered: while a database is connected without the tag, the service publishes nothing, not even to DNS. After
//  event 60003 the service continues without the database. A refused put does not end the session, because the service
//  treats the put as sent; the worker retries it.
Status Worker::serve(Call& call) {
    const auto start = monotonicNow();
    Status status{errorTimedOut, {}};
    bool confirmed = false;
    if (!call.abandoned()) {
        confirmed = takeConfirmed(call);
        running_ = &call;
        status = confirmed ? Status{} : guarded([&] { return call.run(*backend_); });
        running_ = nullptr;
        call.finish(status.code, signal_.closed());
        if (call.required() && call.abandoned() && !failed(status.code))
            status = {errorTimedOut, {}};
    }
    if (confirmed && status.ok()) {
        state_.repeated();
    } else {
        call.record(desired_, status.code, start);
        noteExchange(ServerState::Cause::call, status);
    }
    if (call.required() && failed(status.code)) {
        schedule_.tagRequestFailed();
        if (status.code == errorTimedOut)
            status.reason = tagRequestTimedOut;
        status.code = errorBackendFailed;
    }
    return status;
}

//  Returns whether call needs no exchange. If memory is exhausted, returns false, so that the call is carried out.
bool Worker::takeConfirmed(Call& call) noexcept {
    const auto interval = schedule_.checkInterval();
    bool confirmed = false;
    if (interval.count() != 0 && !checkRefused_ && !desired_.pending())
        attempt([&] { confirmed = call.takeConfirmed(desired_, *backend_, monotonicNow() - interval); });
    return confirmed;
}

//  Each retry has the time limit of a caller. A request that takes longer would also time out when the user of the
//  handle repeats it after event 60001.
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
    return guarded([this] { return desired_.retry(*backend_, monotonicNow()); });
}

//  A refresh tests the connection, too, so no probe precedes it.
Status Worker::dueCheck() {
    const bool refresh = schedule_.checked(monotonicNow());
    return refresh && desired_.refresh() ? retryPending() : checkAndRetry();
}

//  Sets checkRefused_. A success of another request does not reset it: a database user with permission to write but not
//  to read would otherwise cause log lines of failure and recovery in turn, at every put.
Status Worker::checkAndRetry() {
    Status status = check();
    if (status.code == errorPreempted)
        return status;
    checkRefused_ = status.code == errorServerRefused;
    if (!status.ok() || !desired_.pending())
        return status;
    state_.retried();
    return retryPending();
}

//  Probes the connection and checks the server's data. Returns errorPreempted if a call interrupted the check.
Status Worker::check() {
    checking_ = true;
    checkPreempted_ = false;
    Status status = guarded([this] { return backend_->probe(); });
    if (status.ok())
        status = guarded([this] { return desired_.check(*backend_, monotonicNow()); });
    checking_ = false;
    return checkPreempted_ ? Status{errorPreempted, {}} : status;
}

//  Returns whether the next wait of the back end must end because a call is queued. If so, all later waits of this
//  check end, too.
bool Worker::callPreemptsCheck() noexcept {
    if (!checking_ || !backend_->checksArePreemptible())
        return false;
    const std::lock_guard lock(mutex_);
    checkPreempted_ = checkPreempted_ || !queue_.empty();
    return checkPreempted_;
}

//  Waits for the next work and returns its kind; stores the call for Work::call.
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
            return Work::input;
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

//  Stores the next work in due and returns the time until it is due, or a negative time if no work will become due.
std::chrono::milliseconds Worker::untilDue(Work& due) const {
    if (desired_.pending()) {
        due = Work::retry;
        return schedule_.untilRetry(monotonicNow());
    }
    due = Work::check;
    if (schedule_.checkInterval().count() == 0)
        return std::chrono::milliseconds(-1);
    return schedule_.untilCheck(monotonicNow());
}

//  Returns whether the caller of a running or queued request for a tag has timed out. Called on the worker's thread
//  only.
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

//  Answers all queued calls. Works without free memory: finish is called even if refuse or record throws.
void Worker::refuseWaiting() noexcept {
    const int code = signal_.closed() ? errorClosed : errorNotConnected;
    while (const std::shared_ptr<Call> call = takeCall()) {
        if (call->required())
            schedule_.tagRequestFailed();
        attempt([&] {
            call->refuse(*backend_, code);
            call->record(desired_, code, monotonicNow());
        });
        call->finish(code, signal_.closed());
    }
}

void Worker::reportConnection() noexcept {
    const std::lock_guard lock(eventMutex_);
    connectionReported_ = true;
    sendEvent(RDB_EVENT_CONNECTED);
}

//  Runs on the worker's thread. Also runs on a caller's thread when a required call has timed out, because the worker
//  may be blocked, for example in a system call on a disk that does not respond.
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

//  After a call, retry or check that leaves the back end open: logs a refusal, a bad request or a recovery, and after a
//  failure schedules the retry of pending data. Bad requests are logged separately from failures, because they say
//  nothing about the state of the server. Recovery requires a success with nothing pending: a server that accepts one
//  request and refuses another has not recovered.
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

//  Called once, when the thread starts, so that the state file also names a server that was never reached.
void Worker::describeState() noexcept {
    attempt([&] {
        const bool tags = backend_->tags() != nullptr;
        const bool updates = backend_->updates() != nullptr;
        state_.describe(tags && updates ? "any" : tags ? "rdb" : "dns", label_);
        writeState(std::nullopt);
    });
}

void Worker::noteExchange(ServerState::Cause cause, const Status& status) noexcept {
    attempt([&] { state_.exchanged(cause, momentNow(), status, desired_); });
}

//  If only the time of the last success has changed, stateWriteTime passes before the next write. So a service with a
//  check each second does not write each second.
void Worker::publishState() noexcept {
    attempt([&] {
        if (state_.changed() || momentNow().boot - stateWritten_ >= stateWriteTime)
            writeState(nextAction());
    });
}

void Worker::publishLoss(const Status& end, std::chrono::milliseconds pause) noexcept {
    attempt([&] {
        const Moment now = momentNow();
        state_.lost(now, end);
        writeState(ServerState::Next{"open", {now.wall + pause.count(), now.boot + pause.count()}});
    });
}

void Worker::writeState(std::optional<ServerState::Next> next) {
    stateWritten_ = momentNow().boot;
    statePart_.publish(state_.stateText(desired_, next));
}

std::optional<ServerState::Next> Worker::nextAction() const {
    Work due = Work::check;
    const auto left = untilDue(due);
    if (left.count() < 0)
        return {};
    const Moment now = momentNow();
    return ServerState::Next{due == Work::retry ? "retry" : "check",
                             {now.wall + left.count(), now.boot + left.count()}};
}

}  // namespace rdbopen
