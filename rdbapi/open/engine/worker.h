//  One connection: the thread that opens its back end, serves the calls queued for it, tells the events, and opens the
//  back end again when it fails.
//
//      idle --start--> opening --ok: 60001--> serving --failed: 60003--> back-off --> opening ...
//                         \--failed--> back-off --> opening ...           any of them --handle closed--> ended
//
//  Promises: calls are taken between 60001 and 60003 only. What is pending of the desired state (desired_state.h) is
//  retried by the worker itself: before 60001 after a failure, so that a link that fails at its first request causes no
//  event; and while serving, when the server refuses it. When is decided by the retry schedule (retry_schedule.h).
//
//  A user that cannot have its tag may do nothing else while it is told that it is connected. So a request for a tag
//  (Call::required) that is refused, fails or is not answered within callLimit ends the connection, and
//      (1) 60003 follows at once, also when an exchange with a silent server has to be cut short for it;
//      (2) the worker makes the request again each time that the back end is open, and 60001 follows only after it has
//          succeeded within callLimit;
//      (3) 60001 does not follow for awayTime, even when a server refuses every other request.
//  Another request that is refused, such as a put, leaves the connection as it is.
//
//  A reason is reported once until the server is sound again (reason_log.h), not at each attempt. Recovery
//  is reported when a request has succeeded, nothing is pending and the last check was not refused. After a refused check,
//  each success is followed by a new check. A check that a call cuts off counts as not made. Why a request can never
//  succeed is reported once until a call succeeds.
//
//  An event or reply is delivered when the handle is not closed at that moment. So when rdb_disconnect returns, at most
//  one callback is still to begin or to end: the one that the worker was delivering already.
//
//  Threads: the public operations may be called on any thread. The worker's thread blocks all signals.
#ifndef RDBAPI_OPEN_ENGINE_WORKER_H
#define RDBAPI_OPEN_ENGINE_WORKER_H

#include "engine/call.h"
#include "engine/close_signal.h"
#include "engine/desired_state.h"
#include "engine/reason_log.h"
#include "engine/retry_schedule.h"

#include <deque>
#include <memory>

namespace rdbopen {

//  Calls that may wait for the worker at one time.
inline constexpr std::size_t queueCapacity = 64;

//  Keeps a worker in being from its start to its end.
class WorkerOwner {
public:
    //  Marks the handle as having a worker. Returns false when it is closed.
    virtual bool beginWorker() noexcept = 0;

    //  Takes the mark away: the worker's last action on anything of its own.
    virtual void endWorker() noexcept = 0;

protected:
    ~WorkerOwner() = default;
};

class Worker {
public:
    //  Requires: signal and owner outlive the worker.
    Worker(const CloseSignal& signal, WorkerOwner& owner);

    //  Return errorNone, errorAlreadyConnecting once started, or errorClosed. start also errorNoResources, and may then
    //  be called again.
    int setNotify(RdbMessageNotify notify, void* user);
    int start(std::unique_ptr<Backend> backend);

    //  Queues call. Returns errorNone, or why it was not taken: errorNotSupported when the back end does not serve it.
    int post(std::shared_ptr<Call> call);

    //  Queues call and waits for its end.
    int execute(const std::shared_ptr<WaitingCall>& call);

private:
    //  What there is to do while the back end is open.
    enum class Work { closed, call, retry, check };

    static void* threadMain(void* self);
    bool startThread();
    void run() noexcept;
    Status session();
    Status openAndRetry();
    Status serve(Call& call);
    Status retryTags();
    Status retryPending();
    Status checkAndRetry();
    Status check();
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

    //  The back end's view of the handle. A wait ends as timedOut also when a request for a tag waits in vain.
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

    std::mutex mutex_;  // guards the queue and, until the thread starts, the members below it
    std::deque<std::shared_ptr<Call>> queue_;
    bool accepting_ = false;
    bool started_ = false;

    std::mutex eventMutex_;  // held while an event is delivered; guards the next member
    bool connectionReported_ = false;

    std::unique_ptr<Backend> backend_;
    std::string label_;  // of backend_
    RdbMessageNotify notify_ = nullptr;
    void* user_ = nullptr;

    //  Used by the worker's thread only. Times are those of monotonicNow().
    DesiredState desired_;
    RetrySchedule schedule_;
    ReasonLog failures_;                                                      // empty while all is well
    ReasonLog badRequests_;                                                   // since a call last succeeded
    Call* running_ = nullptr;                                                 // the call that the back end carries out
    std::chrono::milliseconds waitLimit_ = std::chrono::milliseconds::max();  // no wait of the back end goes beyond it
    bool checkRefused_ = false;                                               // the last check was
    bool checking_ = false;                                                   // a check is under way
    bool checkPreempted_ = false;                                             // it was cut off
};

}  // namespace rdbopen

#endif
