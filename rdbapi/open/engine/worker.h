//  One connection and its thread. The thread opens the back end, serves the queued calls, sends events, and opens the
//  back end again after a failure.
//
//      idle --start--> opening --ok: 60001--> serving --failed: 60003--> back-off --> opening ...
//                         \--failed--> back-off --> opening ...           any of them --handle closed--> ended
//
//  Calls are accepted while connected: from immediately before event 60001 until immediately before event 60003. The
//  worker itself retries pending data of the desired state (desired_state.h). After each open, it retries the data
//  before 60001, unless a check is refused. So a connection that fails at its first request causes no event. While
//  connected, it retries the data at the times that RetrySchedule (retry_schedule.h) computes.
//
//  The service needs its tag: while it is connected without the tag, it publishes nothing. Therefore a request for a
//  tag (Call::required) ends the connection if it is refused, the back end fails, or there is no answer within
//  callLimit:
//      (1) Event 60003 follows at once. An exchange in progress is cancelled if it waits for a socket.
//      (2) The worker repeats the request each time it has opened the back end. Event 60001 follows only after one of
//          these results: the request has succeeded, it can never succeed (errorBadRequest), or a lookup has shown that
//          the tag does not exist.
//      (3) At least awayTime passes before the next 60001, even if the request could succeed earlier.
//  If any other request is refused, for example a put, the connection stays open.
//
//  A lookup, put or update request that only repeats what the server has already sent or accepted on this connection is
//  answered without an exchange, if the server has confirmed the data within the last check interval. An import of a
//  tag always causes an exchange. A successful check confirms such data again, or finds it missing. A call causes an
//  exchange if data is pending, the last check was refused, a check is late, or the back end has no checks.
//  Before event 60001, after the pending requests for tags, the worker makes a check. It makes a refresh instead if a
//  refresh takes one exchange (TagBackend::refreshIsOneExchange), there is data, none was pending, and the last check
//  was not refused. A call that is answered without an exchange does not write. So the worker itself writes the data
//  again, at each refresh (retry_schedule.h).
//
//  A reason of a failure is not logged at each attempt, but once until the server recovers (reason_log.h). Recovery is
//  logged when a request or check has succeeded, nothing is pending and the last check was not refused. A success
//  before 60001 counts only if data was pending when the back end was opened. After a refused check, each success is
//  followed by another check. The result of a check that a call interrupted is ignored. The reason of errorBadRequest
//  is logged once until a call succeeds.
//
//  The delivery of an event or reply starts only if the handle is not closed. So, when rdb_disconnect returns, a
//  callback may still begin or run if its delivery has already started.
//
//  For addrpubd-check --status, the worker's thread also publishes its state (state_board.h): after each action that
//  changes the state, and after any other action if the last write was at least stateWriteTime ago. The thread has
//  no timer for this. A failure to publish the state has no other effect.
//
//  Threads: the public operations may be called on any thread. The worker's thread blocks all signals.
#ifndef RDBAPI_OPEN_ENGINE_WORKER_H
#define RDBAPI_OPEN_ENGINE_WORKER_H

#include "engine/call.h"
#include "engine/close_signal.h"
#include "engine/desired_state.h"
#include "engine/reason_log.h"
#include "engine/retry_schedule.h"
#include "engine/server_state.h"
#include "engine/state_board.h"

#include <deque>
#include <memory>

namespace rdbopen {

//  Maximum number of calls in the queue.
inline constexpr std::size_t queueCapacity = 64;

//  Owns a worker and does not delete it while its thread runs.
class WorkerOwner {
public:
    //  Marks the handle as having a running worker. Returns false when the handle is closed.
    virtual bool beginWorker() noexcept = 0;

    //  Removes the mark. The worker's thread does not access the worker afterwards.
    virtual void endWorker() noexcept = 0;

protected:
    ~WorkerOwner() = default;
};

class Worker {
public:
    //  Requires: signal and owner outlive the worker.
    Worker(const CloseSignal& signal, WorkerOwner& owner);

    //  Return errorNone, errorAlreadyConnecting if already started, or errorClosed. start may also return
    //  errorNoResources; it can then be called again.
    int setNotify(RdbMessageNotify notify, void* user);
    int start(std::unique_ptr<Backend> backend);

    //  Queues call. Returns errorNone, or an error if the call was not queued: errorClosed, errorNotSupported,
    //  errorNotConnected or errorBusy.
    int post(std::shared_ptr<Call> call);

    //  Queues call and waits for its result. Returns errorInCallback in a callback on this worker's thread.
    int execute(const std::shared_ptr<WaitingCall>& call);

private:
    //  The kinds of work while the back end is open. input: the watched descriptor is readable, which causes a check
    //  that is not due. check: a check that is due.
    enum class Work { closed, call, retry, input, check };

    static void* threadMain(void* self);
    bool startThread();
    void run() noexcept;
    Status session();
    Status openAndRetry();
    bool refreshAtOpen() noexcept;
    Status serve(Call& call);
    Status retryTags();
    Status retryPending();
    Status dueCheck();
    Status checkAndRetry();
    Status check();
    bool takeConfirmed(Call& call) noexcept;
    bool callPreemptsCheck() noexcept;
    Work nextWork(std::shared_ptr<Call>& call);
    std::shared_ptr<Call> takeCall();
    std::chrono::milliseconds untilDue(Work& due) const;
    void setAccepting(bool accepting);
    void refuseWaiting() noexcept;
    bool requiredCallAbandoned() noexcept;
    void reportConnection() noexcept;
    void reportLoss() noexcept;
    void sendEvent(std::int32_t event) noexcept;
    void evaluate(const Status& status) noexcept;
    void describeState() noexcept;
    void noteExchange(ServerState::Cause cause, const Status& status) noexcept;
    void publishState() noexcept;
    void publishLoss(const Status& end, std::chrono::milliseconds pause) noexcept;
    void writeState(std::optional<ServerState::Next> next);
    std::optional<ServerState::Next> nextAction() const;

    //  The Waiter of the back end. A wait also returns timedOut when the caller of a request for a tag has timed out,
    //  and at waitLimit_.
    class SlotWaiter : public Waiter {
    public:
        explicit SlotWaiter(Worker& worker) : worker_(worker) {}
        Result wait(int descriptor, short events, std::chrono::milliseconds until) const noexcept override;
        bool cancelled() const noexcept override {
            return worker_.signal_.closed() || worker_.requiredCallAbandoned() || worker_.callPreemptsCheck();
        }

    private:
        Worker& worker_;
    };

    const CloseSignal& signal_;
    WorkerOwner& owner_;
    const SlotWaiter waiter_;

    std::mutex mutex_;  // guards queue_, accepting_ and started_; until the thread starts, also backend_ ... user_
    std::deque<std::shared_ptr<Call>> queue_;
    bool accepting_ = false;
    bool started_ = false;

    std::mutex eventMutex_;  // held while an event is delivered; guards connectionReported_
    bool connectionReported_ = false;

    std::unique_ptr<Backend> backend_;
    std::string label_;  // of backend_
    RdbMessageNotify notify_ = nullptr;
    void* user_ = nullptr;

    //  Used by the worker's thread only. Times, except stateWritten_, are those of monotonicNow().
    DesiredState desired_;
    RetrySchedule schedule_;
    ReasonLog failures_;       // reasons logged since the last recovery
    ReasonLog badRequests_;    // reasons logged since the last success of a call
    Call* running_ = nullptr;  // the call that the back end is serving, or null
    std::chrono::milliseconds waitLimit_ = std::chrono::milliseconds::max();  // latest end of each wait of the back end
    bool checkRefused_ = false;                                               // the last check was refused
    bool checking_ = false;                                                   // a check is running
    bool checkPreempted_ = false;                                             // a call interrupted the check
    ServerState state_;
    StatePart statePart_;
    std::int64_t stateWritten_ = 0;  // Moment::boot of the last write of the state
};

}  // namespace rdbopen

#endif
